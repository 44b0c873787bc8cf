#include "QemuCmdDetectPolicy.h"

#include "QemuCmdDetectTaskPolicy.h"
#include "sdk/JsonUtils.h"
#include "sdk/PathUtils.h"

#include <utility>

namespace Engine {

QemuCmdDetectPolicy::QemuCmdDetectPolicy(const std::string& name) : DetectPolicy(name) {}

QemuCmdDetectPolicy::~QemuCmdDetectPolicy() = default;

bool QemuCmdDetectPolicy::Parse(const std::string& policyText) {
    return FalseOnException([&] { return ParseContent(policyText); });
}

bool QemuCmdDetectPolicy::ParseMonitorRule(const std::string& ruleText) {
    return FalseOnException([&] { return ParseRule(ruleText); });
}

bool QemuCmdDetectPolicy::ParseContent(const std::string& policyText) {
    Json::Value policy;
    if (SDK::JsonUtils::ParseJsonStr(policyText.c_str(), policyText.length(), policy) != 0) {
        SDK::LogError(m_logger, "Parse policy content failed");
        return false;
    }
    Json::Value content;
    if (!SDK::JsonUtils::GetSubobjectValue(policy, "content", content)) {
        SDK::LogError(m_logger, "Parse QemuCmdDetect policy content failed");
        return false;
    }
    Json::Value monitorList;
    if (!SDK::JsonUtils::GetArrayValue(content, "monitor_list", monitorList)) {
        SDK::LogError(m_logger, "Parse QemuCmdDetect monitor list in policy content failed");
        return false;
    }
    m_monitorRules.clear();
    if (!ReadRules(monitorList, "Parse monitor cmdlist(ArrayIndex=%d) in policy content failed",
                   "The monitoring list(ArrayIndex=%d) exceeds the specification(%d) during "
                   "policy parsing",
                   [this](const std::string& rule) { return ParseMonitorRule(rule); })) {
        return false;
    }
    AddTaskPolicy<QemuCmdDetectTaskPolicy>(content, "qemu_cmd_detect_task");
    return true;
}

bool QemuCmdDetectPolicy::ParseRule(const std::string& ruleText) {
    Json::Value rule;
    if (SDK::JsonUtils::ParseJsonStr(ruleText.c_str(), ruleText.length(), rule) != 0) {
        SDK::LogError(m_logger, "Parse monitor rule in policy content failed");
        return false;
    }
    AccessRule accessRule;
    accessRule.action = SDK::JsonUtils::GetBoolValue(rule, "action", true);
    const std::string virtCmd = SDK::JsonUtils::GetStringValue(rule, "virtcmd", "");
    if (virtCmd.empty()) {
        return false;
    }
    Json::Value cmdList;
    if (!SDK::JsonUtils::GetArrayValue(rule, "cmdlist", cmdList)) {
        SDK::LogError(m_logger, "Parse cmd list  in monitor rule failed");
        return false;
    }
    const bool read = ReadTexts(
        cmdList, "The cmd list(ArrayIndex=%d) exceeds the specification(%d) during policy parsing.",
        [&accessRule](const std::string& command) { accessRule.cmdList.insert(command); });
    if (!read) {
        return false;
    }
    const int action = accessRule.action ? 1 : 0;
    m_monitorRules.try_emplace(virtCmd, std::move(accessRule));
    SDK::LogDebug(m_logger, "Insert monitor rule(virtcmd:%s,action:%d)", virtCmd, action);
    return true;
}

bool QemuCmdDetectPolicy::IsMonitorProcess(const std::string& virtCmd) const {
    return m_monitorRules.find(virtCmd) != m_monitorRules.end();
}

bool QemuCmdDetectPolicy::MatchMonitorRule(const std::string& virtCmd,
                                           const std::string& /*processName*/,
                                           const std::string& cmdName,
                                           const std::string& cmdPath) const {
    const auto rule = m_monitorRules.find(virtCmd);
    if (rule == m_monitorRules.end()) {
        return false;
    }
    const std::set<std::string>& commands = rule->second.cmdList;
    const bool listed = commands.count(cmdName) != 0 || commands.count(cmdPath) != 0 ||
                        commands.count(SDK::PathUtils::GetFileNameFromPath(cmdPath)) != 0;
    return rule->second.action ? !listed : listed;
}

}  // namespace Engine
