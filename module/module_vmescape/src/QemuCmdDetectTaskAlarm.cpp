// The alarm and the cache that keeps it from being repeated.

#include "QemuCmdDetectTask.h"
#include "Reporter.h"
#include "VmEscapeLog.h"
#include "VmEscapeUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/TimeUtils.h"

#include <json/value.h>

#include <algorithm>
#include <ctime>

namespace Engine {

namespace {

constexpr std::size_t kMaxAlarms = 1000;  // searched from end to end for each new alarm
constexpr std::int64_t kAlarmAgeS = 299;  // what is older may be reported again
constexpr int kCmdlineBytes = 4096;

}  // namespace

void QemuCmdDetectTask::SendAlarm(ProcInfoPtr info, const std::string& monitorProcess,
                                  const std::string& escapeMode) {
    if (info == nullptr) {
        return;
    }
    if (info->m_name.empty()) {
        SDK::LogDebug(m_logger,
                      "Send Alarm: No alarm is sent because process(pid=%d) name is empty.",
                      info->m_pid);
        return;
    }
    if (info->m_cmdline.empty()) {
        SDK::ProcessUtils::GetProcessCmdline(info->m_pid, info->m_cmdline, kCmdlineBytes);
    }
    const std::string text = BuildAlarm(*info, monitorProcess, escapeMode);
    if (!IsNeedSendAlarm(info->m_parentName, info->m_ppid, info->m_name, info->m_pid,
                         info->m_cmdline)) {
        SDK::LogInformation(m_logger, "Repeat Alarm: %s", text);
        return;
    }
    SendToReporter(*this, text);
    SDK::LogInformation(m_logger, "Send Alarm: %s", text);
    UpdateAlarmCache(info->m_parentName, info->m_ppid, info->m_name, info->m_pid, info->m_cmdline);
}

std::string QemuCmdDetectTask::BuildAlarm(const ProcsMessage::procInfo& info,
                                          const std::string& monitorProcess,
                                          const std::string& escapeMode) const {
    Json::Value alarm;
    VmEscapeUtils::GenerateAlarmCommonInfo(alarm);
    alarm["event_name"] = "Virtualization process execute sensitive command";
    alarm["event_classid"] = "vmescape_0001";

    const auto cached = m_procCmdCache.find(monitorProcess);
    alarm["resource_info"]["vm_name"] = cached == m_procCmdCache.end()
                                            ? std::string(VmEscapeUtils::UNKNOWN)
                                            : VmEscapeUtils::GetVmNameFromCmdline(cached->second);

    Json::Value process;
    process["process_name"] = info.m_name;
    process["process_pid"] = info.m_pid;
    process["process_cmdline"] = info.m_cmdline;
    process["parent_process_name"] = info.m_parentName;
    process["parent_process_pid"] = info.m_ppid;
    alarm["process_info"].append(process);

    alarm["forensic_info"]["monitor_process"] = monitorProcess;
    alarm["forensic_info"]["escape_mode"] = escapeMode;
    return SDK::JsonUtils::JsonToString(alarm);
}

bool QemuCmdDetectTask::IsNeedSendAlarm(const std::string& parentName, int ppid,
                                        const std::string& procName, int pid,
                                        const std::string& /*cmdline*/) {
    return std::none_of(m_cmdWarnInfo.begin(), m_cmdWarnInfo.end(), [&](const CMD_WARN_INFO& sent) {
        // The numbers first: they tell most alarms apart at once.
        return sent.pid == pid && sent.ppid == ppid && sent.parentName == parentName &&
               sent.procName == procName;
    });
}

void QemuCmdDetectTask::UpdateAlarmCache(const std::string& parentName, int ppid,
                                         const std::string& procName, int pid,
                                         const std::string& cmdline) {
    CMD_WARN_INFO sent{std::time(nullptr), ppid, pid, parentName, procName, cmdline};
    if (m_cmdWarnInfo.size() > kMaxAlarms - 1) {
        m_cmdWarnInfo.erase(m_cmdWarnInfo.begin());
    }
    m_cmdWarnInfo.push_back(std::move(sent));
    SDK::LogDebug(m_logger,
                  "Update Alarm Cache Info{Process(name:%s, pid:%d) CmdProcess(name:%s, pid:%d, "
                  "cmdline(%s)}",
                  parentName, ppid, procName, pid, cmdline);
}

void QemuCmdDetectTask::CleanWarnedInfo() {
    const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
    SDK::LogDebug(m_logger, "Clean expired alarms from cache");
    std::erase_if(m_cmdWarnInfo, [&](const CMD_WARN_INFO& sent) {
        if (now - sent.warnTime <= kAlarmAgeS) {
            return false;
        }
        SDK::LogDebug(m_logger, "Clean cmd warned information in alarm cache");
        return true;
    });
}

}  // namespace Engine
