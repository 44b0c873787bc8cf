// Which processes belong to a virtual machine.

#include "FullProcessList.h"
#include "QemuFileDetectTask.h"
#include "VmEscapeLog.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

constexpr int kInitPid = 1;
constexpr int kCmdlineBytes = 4096;

bool IsShell(const std::string& name) { return name == "bash" || name == "sh"; }

}  // namespace

bool QemuFileDetectTask::ProcessFullProcessInfo() {
    ProcInfoMap procs;
    if (!GetFullProcessList(m_logger, procs)) {
        return false;
    }
    UpdateMonitorProcessList(procs);
    return true;
}

void QemuFileDetectTask::UpdateMonitorProcessList(ProcInfoMap& procs) {
    m_monitorPidMap.clear();
    m_monitorCmdlineMap.clear();
    for (const auto& [pid, info] : procs) {
        if (info == nullptr) {
            SDK::LogError(m_logger, "Iter second is null ptr in UpdateMonitorProcessList");
            continue;
        }
        if (!IsMonitorProcess(info->m_name)) {
            continue;
        }
        m_monitorPidMap.emplace(info->m_pid, info->m_name);
        m_monitorCmdlineMap.emplace(info->m_name, info->m_cmdline);
        SDK::LogDebug(m_logger, "MonitorProcessList add process(pid:%d,name:%s)", info->m_pid,
                      info->m_name);
    }
}

bool QemuFileDetectTask::CheckProcessIsInMonitorList(int pid, std::string& name, int& ppid) {
    const auto known = m_monitorPidMap.find(pid);
    if (known != m_monitorPidMap.end()) {
        name = known->second;
        return true;
    }
    SDK::ProcessUtils::procStatus status;
    if (SDK::ProcessUtils::GetProcessStatusInfo(pid, status) != 0) {
        SDK::LogDebug(m_logger, "QemuFileDetectTask get process(%d) info failed.", pid);
        return false;
    }
    ppid = status.m_ppid;
    name = status.m_name;
    if (!IsMonitorProcess(name)) {
        return false;
    }
    m_monitorPidMap.emplace(pid, name);
    const std::string cmdline = KeepCmdline(pid, name);
    SDK::LogDebug(m_logger,
                  "MonitorProcessList add process(pid:%d,name:%s,cmdLine:%s) which isn't in full "
                  "process list",
                  pid, name, cmdline);
    return true;
}

bool QemuFileDetectTask::CheckParentProcessIsInMonitorList(int ppid, std::string& monitorName) {
    const auto known = m_monitorPidMap.find(ppid);
    if (known != m_monitorPidMap.end()) {
        monitorName = known->second;
        return true;
    }
    int ancestor = 0;
    if (!FindMonitoredAncestor(ppid, ancestor, monitorName)) {
        return false;
    }
    // Under the pid that was asked for: its other children are answered without going up again.
    m_monitorPidMap.emplace(ppid, monitorName);
    const std::string cmdline = KeepCmdline(ancestor, monitorName);
    SDK::LogDebug(m_logger, "MonitorProcessList add parent process(pid:%d,name:%s,cmdLine:%s)",
                  ppid, monitorName, cmdline);
    return true;
}

bool QemuFileDetectTask::FindMonitoredAncestor(int pid, int& ancestor, std::string& name) {
    SDK::ProcessUtils::procStatus status;
    // Pids that are used again while we go up can lead round in a circle. Whoever comes by the mark
    // again is in one; it moves on at 1, 2, 4, ... steps, so it gets into every circle.
    int mark = 0;
    int current = pid;
    for (unsigned int step = 1; current != mark; ++step, current = status.m_ppid) {
        mark = (step & (step - 1)) == 0 ? current : mark;
        KeepShare();
        if (current < kInitPid) {
            SDK::LogDebug(m_logger, "Pid(%d) is filter.", current);
            return false;
        }
        if (SDK::ProcessUtils::GetProcessStatusInfo(current, status) != 0) {
            SDK::LogDebug(m_logger, "Get process(pid=%d) info failed", current);
            return false;
        }
        if (IsMonitorProcess(status.m_name)) {
            ancestor = current;
            name = status.m_name;
            return true;
        }
        if (status.m_ppid == kInitPid || IsShell(status.m_name)) {
            return false;
        }
    }
    return false;
}

std::string QemuFileDetectTask::KeepCmdline(int pid, const std::string& name) {
    std::string cmdline;
    if (SDK::ProcessUtils::GetProcessCmdline(pid, cmdline, kCmdlineBytes) == 0) {
        m_monitorCmdlineMap.emplace(name, cmdline);
    }
    return cmdline;
}

}  // namespace Engine
