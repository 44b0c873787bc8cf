// The view of the process trees below the monitored programs.

#include "QemuCmdDetectPolicy.h"
#include "QemuCmdDetectTask.h"
#include "VmEscapeLog.h"
#include "sdk/TimeUtils.h"

#include <ctime>

namespace Engine {

namespace {

// A fork storm must not grow the maps without end.
constexpr int kMaxProcesses = 20000;
constexpr std::int64_t kExitedAgeS = 299;  // what is older is forgotten

bool IsFull(std::size_t size) { return size > static_cast<std::size_t>(kMaxProcesses - 1); }

}  // namespace

void QemuCmdDetectTask::UpdateMonitorProcessList(const ProcInfoPtr& info) {
    if (info == nullptr) {
        SDK::LogError(m_logger, "ProcsMap iter is null");
        return;
    }
    if (m_monitorPidMap.find(info->m_pid) != m_monitorPidMap.end()) {
        SDK::LogDebug(m_logger, "m_monitorPidMap has exist process(%d,%s)", info->m_pid,
                      info->m_name);
        return;
    }
    if (IsFull(m_monitorPidMap.size())) {
        SDK::LogDebug(m_logger,
                      "Insert process(%d,%s) failed, because PidMap size has exceeded the "
                      "threshold(%d)",
                      info->m_pid, info->m_name, kMaxProcesses);
        return;
    }
    const auto parent = m_monitorPidMap.find(info->m_ppid);
    if (parent != m_monitorPidMap.end()) {
        SDK::LogDebug(m_logger, "The parent(%d,%s) of process(%d,%s) is in monitor list",
                      info->m_ppid, info->m_parentName, info->m_pid, info->m_name);
        m_monitorPidMap.emplace(info->m_pid, parent->second);
        SDK::LogDebug(m_logger, "MonitorPidMap size is %lu", m_monitorPidMap.size());
    } else if (IsMonitorProcess(info->m_name, info->m_pid)) {
        m_monitorPidMap.emplace(info->m_pid, info->m_name);
        SDK::LogDebug(m_logger, "m_monitorPidMap insert process(%d,%s)", info->m_pid, info->m_name);
        m_procCmdCache.try_emplace(info->m_name, info->m_cmdline);
        SDK::LogDebug(m_logger, "m_procCmdCache insert process info(name:%s, cmd:%s)", info->m_name,
                      info->m_cmdline);
    }
}

void QemuCmdDetectTask::UpdateMonitorProcessList(ProcInfoMap& procs) {
    SDK::LogDebug(m_logger, "ProccessMap size=%d", static_cast<int>(procs.size()));
    m_monitorPidMap.clear();
    for (const auto& [pid, info] : procs) {
        UpdateMonitorProcessList(info);
    }
}

bool QemuCmdDetectTask::RecordExitProcess(int pid) {
    if (IsFull(m_exitPidMap.size())) {
        SDK::LogDebug(m_logger, "ExitPidMap is full");
        return false;
    }
    if (m_monitorPidMap.find(pid) == m_monitorPidMap.end()) {
        return false;
    }
    m_exitPidMap.try_emplace(pid, std::time(nullptr));
    SDK::LogDebug(m_logger, "Record Exit Process(%d)", pid);
    return true;
}

void QemuCmdDetectTask::ClearExitProcess() {
    const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
    SDK::LogDebug(m_logger, "ExitList size is %lu", m_exitPidMap.size());
    for (auto exited = m_exitPidMap.begin(); exited != m_exitPidMap.end();) {
        const auto [pid, exitTime] = *exited;
        if (now - exitTime <= kExitedAgeS) {
            ++exited;
            continue;
        }
        const auto monitored = m_monitorPidMap.find(pid);
        if (monitored != m_monitorPidMap.end()) {
            m_procCmdCache.erase(monitored->second);
            m_monitorPidMap.erase(monitored);
            SDK::LogDebug(m_logger, "Process(%d) that exits erased in monitor list", int{pid});
        }
        exited = m_exitPidMap.erase(exited);
        SDK::LogDebug(m_logger, "Process(%d) erased in exit list", int{pid});
    }
}

bool QemuCmdDetectTask::IsMonitorProcess(const std::string& name, int /*pid*/) {
    const auto policy = GetDetectPolicy<QemuCmdDetectPolicy>(
        *this, m_logger, "m_featurePolicy is null pointer in QemuCmdDetectTask::IsMonitorProcess");
    return policy != nullptr && policy->IsMonitorProcess(name);
}

}  // namespace Engine
