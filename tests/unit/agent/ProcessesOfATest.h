#pragma once

#include "MachineList.h"

#include <string>
#include <utility>

/// A host's processes as a test makes them up.
class ProcessesOfATest {
public:
    /// Adds one. @param startNs  after boot; 0: not known
    ProcessesOfATest& Add(int pid, int ppid, const std::string& name,
                          const std::string& cmdline = "", std::uint64_t startNs = 0) {
        auto info = std::make_shared<Engine::ProcsMessage::procInfo>();
        info->m_pid = pid;
        info->m_ppid = ppid;
        info->m_name = name;
        info->m_cmdline = cmdline;
        info->m_startTime = startNs;
        m_processes[pid] = std::move(info);
        return *this;
    }

    const Agent::MachineList::Processes& Get() const { return m_processes; }

private:
    Agent::MachineList::Processes m_processes;
};
