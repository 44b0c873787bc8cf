// The alarm and the cache that keeps it from being repeated.

#include "QemuFileDetectTask.h"
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
constexpr std::time_t kAlarmAgeS = 300;   // what is as old may be reported again

}  // namespace

void QemuFileDetectTask::SendAlarm(const std::string& monitorProcess,
                                   const std::string& processName, int pid,
                                   const std::string& filePath, const std::string& fileAction) {
    if (processName.empty()) {
        SDK::LogDebug(m_logger,
                      "Send Alarm: No alarm is sent because process(pid=%d) name is empty.", pid);
        return;
    }
    const std::string text = BuildAlarm(monitorProcess, processName, pid, filePath, fileAction);
    if (!IsNeedSendAlarm(processName, pid, filePath, fileAction)) {
        SDK::LogInformation(m_logger, "Repeat Alarm: %s", text);
        return;
    }
    SendToReporter(*this, text);
    SDK::LogInformation(m_logger, "Send Alarm: %s", text);
    UpdateAlarmCache(processName, pid, filePath, fileAction);
}

std::string QemuFileDetectTask::BuildAlarm(const std::string& monitorProcess,
                                           const std::string& processName, int pid,
                                           const std::string& filePath,
                                           const std::string& fileAction) const {
    Json::Value alarm;
    VmEscapeUtils::GenerateAlarmCommonInfo(alarm);
    alarm["event_name"] = "Virtualization process access sensitive file";
    alarm["event_classid"] = "vmescape_0002";

    const auto cmdline = m_monitorCmdlineMap.find(monitorProcess);
    alarm["resource_info"]["vm_name"] = cmdline == m_monitorCmdlineMap.end()
                                            ? VmEscapeUtils::UNKNOWN
                                            : VmEscapeUtils::GetVmNameFromCmdline(cmdline->second);

    Json::Value process;
    process["process_name"] = processName;
    process["process_pid"] = pid;
    alarm["process_info"].append(process);

    Json::Value file;
    file["file_path"] = filePath;
    file["file_action"] = fileAction;
    alarm["file_info"].append(file);

    alarm["forensic_info"]["monitor_process"] = monitorProcess;
    return SDK::JsonUtils::JsonToString(alarm);
}

bool QemuFileDetectTask::IsNeedSendAlarm(const std::string& processName, int pid,
                                         const std::string& filePath,
                                         const std::string& fileAction) {
    return std::none_of(m_fileWarnInfo.begin(), m_fileWarnInfo.end(),
                        [&](const FILE_WARN_INFO& sent) {
                            // The number first: it tells most alarms apart at once.
                            return sent.pid == pid && sent.processName == processName &&
                                   sent.filePath == filePath && sent.fileAction == fileAction;
                        });
}

void QemuFileDetectTask::UpdateAlarmCache(const std::string& processName, int pid,
                                          const std::string& filePath,
                                          const std::string& fileAction) {
    FILE_WARN_INFO sent{pid, std::time(nullptr), processName, filePath, fileAction};
    if (m_fileWarnInfo.size() > kMaxAlarms - 1) {
        m_fileWarnInfo.erase(m_fileWarnInfo.begin());
    }
    m_fileWarnInfo.push_back(std::move(sent));
    SDK::LogDebug(m_logger,
                  "Update Alarm Cache Info{Process(name:%s, pid:%d),File(path:%s,action:%s)}",
                  processName, pid, filePath, fileAction);
}

void QemuFileDetectTask::CleanWarnedInfo() {
    const std::time_t now = std::time(nullptr);
    std::erase_if(m_fileWarnInfo, [&](const FILE_WARN_INFO& sent) {
        if (now - sent.time < kAlarmAgeS) {
            return false;
        }
        SDK::LogDebug(m_logger, "Clean file warned information in alarm cache");
        return true;
    });
}

}  // namespace Engine
