#include "QemuCmdDetectPolicy.h"

#include "QemuCmdDetectTaskPolicy.h"
#include "VmEscapeLog.h"
#include "sdk/JsonUtils.h"
#include "sdk/PathUtils.h"

#include <utility>

namespace Engine {

namespace {

// They bound what one policy text can make the module hold.
constexpr int kMaxMonitorRules = 50;
constexpr int kMaxCommands = 100;

}  // namespace

QemuCmdDetectPolicy::QemuCmdDetectPolicy(const std::string& name)
    : Framework::FeaturePolicy(name), m_logger(GetVmEscapeLogger()) {
    m_attribute = POLICY_ATTRIBUTE;
}

QemuCmdDetectPolicy::~QemuCmdDetectPolicy() = default;

bool QemuCmdDetectPolicy::Parse(const std::string& policyText) {
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
    if (!ParseMonitorList(monitorList)) {
        return false;
    }
    AddTaskPolicy(content);
    return true;
}

bool QemuCmdDetectPolicy::ParseMonitorList(const Json::Value& monitorList) {
    bool stored = false;
    const int size = static_cast<int>(monitorList.size());
    for (int i = 0; i < size; ++i) {
        if (i == kMaxMonitorRules) {
            SDK::LogError(m_logger,
                          "The monitoring list(ArrayIndex=%d) exceeds the specification(%d) during "
                          "policy parsing",
                          i, kMaxMonitorRules);
            break;
        }
        if (ParseMonitorRule(SDK::JsonUtils::JsonToString(monitorList[i]))) {
            stored = true;
        } else {
            SDK::LogError(m_logger, "Parse monitor cmdlist(ArrayIndex=%d) in policy content failed",
                          i);
        }
    }
    return stored;
}

bool QemuCmdDetectPolicy::ParseMonitorRule(const std::string& ruleText) {
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
    if (!ParseCmdList(cmdList, accessRule.cmdList)) {
        return false;
    }
    const int action = accessRule.action ? 1 : 0;
    m_monitorRules.try_emplace(virtCmd, std::move(accessRule));
    SDK::LogDebug(m_logger, "Insert monitor rule(virtcmd:%s,action:%d)", virtCmd, action);
    return true;
}

bool QemuCmdDetectPolicy::ParseCmdList(const Json::Value& list, std::set<std::string>& commands) {
    const int size = static_cast<int>(list.size());
    for (int i = 0; i < size; ++i) {
        if (i == kMaxCommands) {
            SDK::LogError(m_logger,
                          "The cmd list(ArrayIndex=%d) exceeds the specification(%d) during policy "
                          "parsing.",
                          i, kMaxCommands);
            break;
        }
        // asString throws on lists and objects.
        if (!list[i].isConvertibleTo(Json::stringValue)) {
            return false;
        }
        commands.insert(list[i].asString());
    }
    return true;
}

void QemuCmdDetectPolicy::AddTaskPolicy(const Json::Value& content) {
    auto taskPolicy = std::make_unique<QemuCmdDetectTaskPolicy>("qemu_cmd_detect_task");
    // The run condition does not decide about the feature: its result is not looked at.
    taskPolicy->Parse(SDK::JsonUtils::GetStringValue(content, "qemu_cmd_detect_task", ""));
    Add(taskPolicy.release());
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
