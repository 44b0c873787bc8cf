// The alarm and the cache that keeps it from being repeated.

#include "QemuPortDetectTask.h"
#include "Reporter.h"
#include "VmEscapeLog.h"
#include "VmEscapeUtils.h"
#include "sdk/JsonUtils.h"

#include <json/value.h>

#include <algorithm>
#include <utility>

namespace Engine {

namespace {

constexpr std::size_t kMaxAlarms = 1000;  // searched from end to end for each new alarm
constexpr std::time_t kAlarmAgeS = 299;   // what is older may be reported again

}  // namespace

void QemuPortDetectTask::SendAlarm(const std::string& processName, int pid,
                                   const std::string& abnormalPort,
                                   const std::string& commandLine) {
    if (processName.empty()) {
        SDK::LogDebug(m_logger,
                      "Send Alarm: No alarm is sent because process(pid=%d) name is empty.", pid);
        return;
    }
    const std::string text = BuildAlarm(processName, pid, abnormalPort, commandLine);
    if (!IsNeedSendAlarm(processName, pid, abnormalPort)) {
        SDK::LogInformation(m_logger, "Repeat Alarm: %s", text);
        return;
    }
    SendToReporter(*this, text);
    SDK::LogInformation(m_logger, "Send Alarm: %s", text);
    UpdateAlarmCache(processName, pid, abnormalPort, commandLine);
}

std::string QemuPortDetectTask::BuildAlarm(const std::string& processName, int pid,
                                           const std::string& abnormalPort,
                                           const std::string& commandLine) const {
    Json::Value alarm;
    VmEscapeUtils::GenerateAlarmCommonInfo(alarm);
    alarm["event_name"] = "Virtualization process access abnormal network port";
    alarm["event_classid"] = "vmescape_0003";
    // As a C string: of a command line with NULs between its arguments only the first one counts.
    // NOLINTNEXTLINE(readability-redundant-string-cstr)
    alarm["resource_info"]["vm_name"] = VmEscapeUtils::GetVmNameFromCmdline(commandLine.c_str());

    Json::Value process;
    process["process_name"] = processName;
    process["process_pid"] = pid;
    alarm["process_info"].append(process);

    alarm["forensic_info"]["monitor_process"] = processName;
    alarm["forensic_info"]["abnormal_port"] = abnormalPort;
    return SDK::JsonUtils::JsonToString(alarm);
}

bool QemuPortDetectTask::IsNeedSendAlarm(const std::string& processName, int pid,
                                         const std::string& abnormalPort) {
    return std::none_of(m_netWarnInfo.begin(), m_netWarnInfo.end(), [&](const NET_WARN_INFO& sent) {
        return sent.processName == processName && sent.pid == pid &&
               sent.abnormalPort == abnormalPort;
    });
}

void QemuPortDetectTask::UpdateAlarmCache(const std::string& processName, int pid,
                                          const std::string& abnormalPort,
                                          const std::string& /*commandLine*/) {
    NET_WARN_INFO sent{pid, std::time(nullptr), processName, abnormalPort};
    if (m_netWarnInfo.size() >= kMaxAlarms) {
        m_netWarnInfo.erase(m_netWarnInfo.begin());
    }
    m_netWarnInfo.push_back(std::move(sent));
    SDK::LogDebug(m_logger, "Update Alarm Cache Info{Process(name:%s, pid:%d), abnormal port(%s)}",
                  processName, pid, abnormalPort);
}

void QemuPortDetectTask::CleanWarnedInfo() {
    const std::time_t now = std::time(nullptr);
    std::erase_if(m_netWarnInfo, [&](const NET_WARN_INFO& sent) {
        // An alarm from the future, after the clock was set back, has a negative age and stays.
        if (now - sent.time <= kAlarmAgeS) {
            return false;
        }
        SDK::LogDebug(m_logger, "Clean net warned information in alarm cache");
        return true;
    });
}

}  // namespace Engine
