#include "support/AgentProcess.h"

#include "sdk/JsonUtils.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <sstream>

namespace TestSupport {

namespace {

constexpr std::chrono::seconds kPatience{20};

std::vector<std::string> MakeArguments(const std::string& build, const TemporaryFolder& policies,
                                       const TemporaryFolder& output,
                                       const AgentProcess::PolicyTexts& texts,
                                       const std::vector<std::string>& arguments) {
    for (const auto& [file, text] : texts) {
        policies.Write(file, text);
    }
    // Not the host's own configuration; and below the command line, where a test may say otherwise.
    Json::Value config;
    config["policies"] = policies.Path();
    config["report"]["output"] = "file:" + output / "alarms";
    config["status"]["socket"] = output / "status";
    std::vector<std::string> all = {
        build + "/bin/vmescape-agent", "run", "--config",
        output.Write("agent.json", SDK::JsonUtils::JsonToString(config))};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

AgentProcess::PolicyTexts CommandPolicyAlone(const std::string& text) {
    return text.empty() ? AgentProcess::PolicyTexts()
                        : AgentProcess::PolicyTexts{{AgentProcess::POLICY_FILE, text}};
}

Json::Value ToList(const std::vector<std::string>& texts) {
    Json::Value list = Json::arrayValue;
    for (const std::string& text : texts) {
        list.append(text);
    }
    return list;
}

std::string Envelope(const Json::Value& content) {
    Json::Value policy;
    policy["module_name"] = "vmescape_module";
    policy["enabled"] = true;
    policy["content"] = content;
    return SDK::JsonUtils::JsonToString(policy);
}

}  // namespace

AgentProcess::AgentProcess(const std::string& build, const std::string& policy,
                           const std::vector<std::string>& arguments)
    : AgentProcess(build, CommandPolicyAlone(policy), arguments) {}

AgentProcess::AgentProcess(const std::string& build, const PolicyTexts& policies,
                           const std::vector<std::string>& arguments)
    : m_child(MakeArguments(build, m_policies, m_output, policies, arguments)) {
    EXPECT_TRUE(WaitForLog(" is running, ")) << Log();
}

std::vector<Json::Value> AgentProcess::Alarms() const {
    std::vector<Json::Value> alarms;
    std::istringstream lines(ReadText(m_output / "alarms"));
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        Json::Value alarm;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.c_str(), line.length(), alarm), 0) << line;
        alarms.push_back(alarm);
    }
    return alarms;
}

Json::Value AgentProcess::WaitForAlarm(
    const std::function<bool(const Json::Value&)>& condition) const {
    Json::Value found;
    WaitUntil(
        [&] {
            for (const Json::Value& alarm : Alarms()) {
                if (condition(alarm)) {
                    found = alarm;
                    return true;
                }
            }
            return false;
        },
        kPatience);
    return found;
}

bool AgentProcess::WaitForLog(const std::string& part) {
    return WaitUntil([&] { return Log().find(part) != std::string::npos; }, kPatience);
}

int AgentProcess::CountLog(const std::string& part) {
    std::istringstream lines(Log());
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        count += line.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
}

int AgentProcess::Stop(int signal) {
    m_child.Signal(signal);
    return m_child.Wait().value_or(-1);
}

std::string AgentProcess::Missing() { return ::geteuid() == 0 ? "" : "the agent needs root"; }

std::string AgentProcess::Policy(bool allowList, const std::vector<std::string>& commands) {
    Json::Value rule;
    rule["virtcmd"] = "qemu-system-x86_64";
    rule["action"] = allowList;
    rule["cmdlist"] = ToList(commands);
    Json::Value content;
    content["monitor_list"].append(rule);
    return Envelope(content);
}

std::string AgentProcess::FilePolicy(bool allowList, const std::vector<std::string>& directories,
                                     const std::vector<std::string>& files) {
    Json::Value rule;
    rule["virtmonitor"] = "qemu-system-x86_64";
    rule["filelist"] = ToList(files);
    Json::Value content;
    content["action"] = allowList;
    content["senstive_dirs"] = ToList(directories);
    content["monitor_list"].append(rule);
    return Envelope(content);
}

std::string AgentProcess::PortPolicy(const std::vector<std::string>& ports) {
    Json::Value rule;
    rule["virtmonitor"] = "qemu-system-x86_64";
    rule["portlist"] = ToList(ports);
    Json::Value content;
    content["monitor_list"].append(rule);
    return Envelope(content);
}

}  // namespace TestSupport
