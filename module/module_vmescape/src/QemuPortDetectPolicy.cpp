#include "QemuPortDetectPolicy.h"

#include "QemuPortDetectTaskPolicy.h"
#include "sdk/JsonUtils.h"

#include <utility>

namespace Engine {

QemuPortDetectPolicy::QemuPortDetectPolicy(const std::string& name) : DetectPolicy(name) {}

QemuPortDetectPolicy::~QemuPortDetectPolicy() = default;

bool QemuPortDetectPolicy::Parse(const std::string& policyText) {
    return FalseOnException([&] { return ParseContent(policyText); });
}

bool QemuPortDetectPolicy::ParseMonitorRule(const std::string& ruleText) {
    return FalseOnException([&] { return ParseRule(ruleText); });
}

bool QemuPortDetectPolicy::ParseContent(const std::string& policyText) {
    Json::Value policy;
    if (SDK::JsonUtils::ParseJsonStr(policyText.c_str(), policyText.length(), policy) != 0) {
        SDK::LogError(m_logger, "Parse policy content failed");
        return false;
    }
    Json::Value content;
    if (!SDK::JsonUtils::GetSubobjectValue(policy, "content", content)) {
        SDK::LogError(m_logger, "Parse QemuPortDetect policy content failed");
        return false;
    }
    Json::Value monitorList;
    if (!SDK::JsonUtils::GetArrayValue(content, "monitor_list", monitorList)) {
        SDK::LogError(m_logger, "Parse QemuPortDetect monitor list in policy content failed");
        return false;
    }
    m_monitorRuleMap.clear();
    if (!ReadRules(monitorList, "Parse monitor rule in policy content failed",
                   "The monitoring list(ArrayIndex=%d) exceeds the specification(%d) during "
                   "policy parsing.",
                   [this](const std::string& rule) { return ParseMonitorRule(rule); })) {
        return false;
    }
    AddTaskPolicy<QemuPortDetectTaskPolicy>(content, "qemu_port_detect_task");
    return true;
}

bool QemuPortDetectPolicy::ParseRule(const std::string& ruleText) {
    Json::Value rule;
    if (SDK::JsonUtils::ParseJsonStr(ruleText.c_str(), ruleText.length(), rule) != 0) {
        SDK::LogError(m_logger, "Parse monitor rule in policy content failed");
        return false;
    }
    const std::string virtMonitor = SDK::JsonUtils::GetStringValue(rule, "virtmonitor", "");
    if (virtMonitor.empty()) {
        SDK::LogError(m_logger, "Monitor process list is null");
        return false;
    }
    Json::Value portList;
    if (!SDK::JsonUtils::GetArrayValue(rule, "portlist", portList)) {
        SDK::LogError(m_logger, "Parse port list in monitor rule failed");
        return false;
    }
    std::set<std::string> ports;
    const bool read = ReadTexts(
        portList,
        "The port list(ArrayIndex=%d) exceeds the specification(%d) during policy parsing.",
        [&ports](const std::string& port) { ports.insert(port); });
    if (!read) {
        return false;
    }
    m_monitorRuleMap.try_emplace(virtMonitor, std::move(ports));
    // The line speaks of "virtcmd", as that of the command policy does.
    SDK::LogDebug(m_logger, "Insert monitor rule(virtcmd:%s)", virtMonitor);
    return true;
}

bool QemuPortDetectPolicy::IsMonitorProcess(const std::string& processName) const {
    return m_monitorRuleMap.find(processName) != m_monitorRuleMap.end();
}

int QemuPortDetectPolicy::MatchMonitorRule(const std::string& processName, const std::string& port,
                                           const std::string& /*processId*/,
                                           std::string& abnormalPort) const {
    const auto rule = m_monitorRuleMap.find(processName);
    if (rule == m_monitorRuleMap.end() || rule->second.count(port) != 0) {
        return 0;
    }
    abnormalPort = port;
    return 1;
}

}  // namespace Engine
