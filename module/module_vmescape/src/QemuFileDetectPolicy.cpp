#include "QemuFileDetectPolicy.h"

#include "QemuFileDetectTaskPolicy.h"
#include "sdk/JsonUtils.h"

#include <utility>

namespace Engine {

QemuFileDetectPolicy::QemuFileDetectPolicy(const std::string& name) : DetectPolicy(name) {}

QemuFileDetectPolicy::~QemuFileDetectPolicy() = default;

bool QemuFileDetectPolicy::Parse(const std::string& policyText) {
    Json::Value policy;
    Json::Value content;
    if (SDK::JsonUtils::ParseJsonStr(policyText.c_str(), policyText.length(), policy) != 0 ||
        !SDK::JsonUtils::GetSubobjectValue(policy, "content", content)) {
        SDK::LogError(m_logger, "Parse policy content failed");
        return false;
    }
    m_policyInfo.action = SDK::JsonUtils::GetBoolValue(content, "action", true);
    const std::string contentText = SDK::JsonUtils::JsonToString(content);
    if (!ParseSenstiveDirs(contentText) || !ParseMonitorList(contentText)) {
        return false;
    }
    AddTaskPolicy<QemuFileDetectTaskPolicy>(content, "qemu_file_detect_task");
    return true;
}

bool QemuFileDetectPolicy::ParseSenstiveDirs(const std::string& contentText) {
    Json::Value content;
    Json::Value dirs;
    if (SDK::JsonUtils::ParseJsonStr(contentText.c_str(), contentText.length(), content) != 0 ||
        !SDK::JsonUtils::GetArrayValue(content, "senstive_dirs", dirs)) {
        SDK::LogError(m_logger, "Parse senstive_dirs in policy content failed");
        return false;
    }
    m_policyInfo.sensitiveDirs.clear();
    return ReadTexts(
        dirs,
        "The sensitive dirs(ArrayIndex=%d) exceeds the specification(%d) during policy parsing.",
        [this](const std::string& dir) {
            m_policyInfo.sensitiveDirs.insert(dir);
            SDK::LogDebug(m_logger, "insert monitor dir(%s) in QemuFileDetectPolicy::Parse", dir);
        });
}

bool QemuFileDetectPolicy::ParseMonitorList(const std::string& contentText) {
    Json::Value content;
    if (SDK::JsonUtils::ParseJsonStr(contentText.c_str(), contentText.length(), content) != 0) {
        SDK::LogError(m_logger, "Parse policy content failed");
        return false;
    }
    Json::Value monitorList;
    if (!SDK::JsonUtils::GetArrayValue(content, "monitor_list", monitorList)) {
        SDK::LogError(m_logger, "Parse monitor list in policy content failed");
        return false;
    }
    m_policyInfo.monitorRules.clear();
    return ReadRules(monitorList, "Parse monitor filelist(ArrayIndex=%d) in policy content failed",
                     "The monitoring list(ArrayIndex=%d) exceeds the specification(%d).",
                     [this](const std::string& rule) { return ParseMonitorRule(rule); });
}

bool QemuFileDetectPolicy::ParseMonitorRule(const std::string& ruleText) {
    Json::Value rule;
    if (SDK::JsonUtils::ParseJsonStr(ruleText.c_str(), ruleText.length(), rule) != 0) {
        SDK::LogError(m_logger, "Parse monitor rule in policy content failed");
        return false;
    }
    const std::string virtMonitor = SDK::JsonUtils::GetStringValue(rule, "virtmonitor", "");
    if (virtMonitor.empty()) {
        return false;
    }
    Json::Value fileList;
    if (!SDK::JsonUtils::GetArrayValue(rule, "filelist", fileList)) {
        SDK::LogError(m_logger, "Parse file list in monitor rule failed");
        return false;
    }
    std::set<std::string> files;
    const bool read = ReadTexts(
        fileList,
        // The line speaks of commands, as that of the command policy does.
        "The cmd list(ArrayIndex=%d) exceeds the specification(%d) during policy parsing.",
        [&](const std::string& file) {
            files.insert(file);
            SDK::LogDebug(m_logger, "Insert file(filename=%s,virtmonitor:%s)", file, virtMonitor);
        });
    if (!read) {
        return false;
    }
    m_policyInfo.monitorRules.try_emplace(virtMonitor, std::move(files));
    SDK::LogDebug(m_logger, "Insert monitor rule(virtmonitor:%s)", virtMonitor);
    return true;
}

void QemuFileDetectPolicy::GetMonitorDirs(std::set<std::string>& dirs) const {
    dirs.insert(m_policyInfo.sensitiveDirs.begin(), m_policyInfo.sensitiveDirs.end());
}

bool QemuFileDetectPolicy::IsMonitorProcess(const std::string& processName) const {
    return m_policyInfo.monitorRules.find(processName) != m_policyInfo.monitorRules.end();
}

bool QemuFileDetectPolicy::MatchMonitorRule(const std::string& processName,
                                            const std::string& filePath) const {
    const auto rule = m_policyInfo.monitorRules.find(processName);
    if (rule == m_policyInfo.monitorRules.end()) {
        return false;
    }
    const bool listed = rule->second.count(filePath) != 0;
    return m_policyInfo.action ? !listed : listed;
}

}  // namespace Engine
