#pragma once

#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

#include <json/value.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace TestSupport {

/// The agent as a user runs it, with policies of the test's own and its alarms in a file.
class AgentProcess {
public:
    /// Texts of policies by the names of their files.
    using PolicyTexts = std::map<std::string, std::string>;

    /// Starts it and waits until it says that it is running. Fails the test when it does not.
    /// @param build      the build tree
    /// @param policies   what is in its policy folder
    /// @param arguments  more arguments of "run"
    AgentProcess(const std::string& build, const PolicyTexts& policies,
                 const std::vector<std::string>& arguments = {});

    /// The same with a command policy alone. @param policy  its text; empty for none
    AgentProcess(const std::string& build, const std::string& policy,
                 const std::vector<std::string>& arguments = {});

    /// The alarms written so far.
    std::vector<Json::Value> Alarms() const;

    /// Waits for an alarm for which the condition holds.
    /// @return it, or null when none came in time
    Json::Value WaitForAlarm(const std::function<bool(const Json::Value&)>& condition) const;

    /// Waits until the log holds a text.
    bool WaitForLog(const std::string& part);

    /// How many lines of the log hold a text.
    int CountLog(const std::string& part);

    /// Everything that was logged.
    const std::string& Log() { return m_child.Errors(); }

    /// Ends the agent. @return its exit status, -1 when it does not end
    int Stop(int signal);

    /// Where its policies are.
    const TemporaryFolder& Policies() const { return m_policies; }

    /// Where it tells its status.
    std::string StatusSocket() const { return m_output / "status"; }

    ChildProcess& Child() { return m_child; }

    /// Why tests with a running agent cannot run here; empty when they can.
    static std::string Missing();

    /// A command policy with one rule for qemu-system-x86_64.
    static std::string Policy(bool allowList, const std::vector<std::string>& commands);

    /// A file policy with one rule for qemu-system-x86_64.
    static std::string FilePolicy(bool allowList, const std::vector<std::string>& directories,
                                  const std::vector<std::string>& files);

    /// A port policy with one rule for qemu-system-x86_64.
    static std::string PortPolicy(const std::vector<std::string>& ports);

    static constexpr const char* POLICY_FILE = "qemu_cmd_detect_feature.json";
    static constexpr const char* FILE_POLICY_FILE = "qemu_file_detect_feature.json";
    static constexpr const char* PORT_POLICY_FILE = "qemu_port_detect_feature.json";

private:
    TemporaryFolder m_policies;
    TemporaryFolder m_output;
    ChildProcess m_child;
};

}  // namespace TestSupport
