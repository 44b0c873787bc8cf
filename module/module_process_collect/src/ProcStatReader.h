#pragma once

#include "ProcessImage.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace ProcessCollect {

/// What /proc/<pid>/stat tells of a process.
struct ProcStat {
    std::string m_comm;  ///< the kernel's name, possibly changed by the process
    char m_state = '?';  ///< R, S, D, Z, ... (proc_pid_stat(5))
    int m_parentPid = 0;
    int m_threads = 0;
    std::uint64_t m_startTime = 0;  ///< nanoseconds from boot to the fork, in steps of a tick
    RunMarks m_marks;               ///< not known without the right to trace the process

    /// False for a process whose last thread has ended. A leader that ended before its threads is
    /// a zombie too, but its process lives on.
    bool Alive() const { return (m_state != 'Z' && m_state != 'X') || m_threads > 1; }
};

/// Reads /proc/<pid>/stat. Stateless: any thread at any time.
class ProcStatReader {
public:
    /// @return false, and stat is unchanged, when there is no such process
    static bool Read(int pid, ProcStat& stat);

    /// Reads the file's text.
    /// @return false, and stat is unchanged, when it is malformed
    static bool Parse(std::string_view text, ProcStat& stat);

    /// The file's unit of time, in nanoseconds.
    static std::uint64_t TickNanoseconds();
};

}  // namespace ProcessCollect
