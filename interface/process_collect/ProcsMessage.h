#pragma once

#include "framework/Message.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace Engine {

/// A process started, ran another program, or ended.
class ProcsMessage : public Framework::Message {
public:
    /// What happened. The values are also the registration types.
    enum Flag : unsigned int {
        FORK = 1,  ///< a new process; it still runs its parent's program
        EXEC = 2,  ///< a process runs a new program
        EXIT = 3,  ///< the last thread of a process ended
    };

    /// One process. Whoever receives it owns it and may change it: the collector hands out copies.
    struct procInfo {
        int m_pid = 0;
        int m_ppid = 0;         ///< the process that forked it, while the collector knows that one
        std::string m_name;     ///< set by the kernel at the last exec, completed past 15 bytes
        std::string m_exePath;  ///< absolute, resolved by the kernel at exec
        std::string m_cmdline;  ///< arguments joined by single blanks, at most 4096 bytes
        std::string m_parentName;  ///< the parent's m_name when the record was made
        std::uint64_t m_startTime =
            0;  ///< nanoseconds from boot to the fork; tells reused pids apart
    };

    /// @param info  for EXIT possibly null, when nothing is known of the process
    ProcsMessage(unsigned int flag, int pid, std::shared_ptr<procInfo> info)
        : Framework::Message("procs_message"), m_flag(flag), m_pid(pid), m_info(std::move(info)) {}

    unsigned int GetProcFlag() const { return m_flag; }
    int GetProcPid() const { return m_pid; }

    /// @param info  set to the record, which may be null
    void GetProcInfo(std::shared_ptr<procInfo>& info) const { info = m_info; }

private:
    const unsigned int m_flag;
    const int m_pid;
    const std::shared_ptr<procInfo> m_info;
};

}  // namespace Engine
