#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/WaitUntil.h"

#include <signal.h>

#include <filesystem>

namespace {

class PolicyReload : public LiveTest {
protected:
    /// Waits until a number of log lines hold a text.
    static bool WaitForLines(Agent& agent, const std::string& part, int count) {
        return TestSupport::WaitUntil([&] { return agent.CountLog(part) >= count; });
    }

    /// Whether a new virtual machine's command raises an alarm; the name tells it from others.
    static bool RaisesAlarm(const Agent& agent, const std::string& name) {
        const Qemu qemu({"-name", "guest=" + name});
        qemu.RunShell("id");
        return !agent
                    .WaitForAlarm([&](const Json::Value& alarm) {
                        return Vm(alarm) == name && Mode(alarm) == "system/fork";
                    })
                    .isNull();
    }

    static constexpr const char* kFile = Agent::POLICY_FILE;
};

TEST_F(PolicyReload, TakesAFileThatWasReplaced) {
    Agent agent(BUILD_FOLDER, Agent::Policy(false, {}));
    agent.Policies().Replace(kFile, DenyList());
    ASSERT_TRUE(WaitForLines(agent, "is in force", 2));
    EXPECT_TRUE(RaisesAlarm(agent, "vm-new"));
}

TEST_F(PolicyReload, TakesTheFirstPolicyWheneverItComes) {
    Agent agent(BUILD_FOLDER, "");
    EXPECT_TRUE(agent.WaitForLog("nothing is detected until one comes"));
    agent.Policies().Write(kFile, DenyList());
    ASSERT_TRUE(WaitForLines(agent, "is in force", 1));
    EXPECT_TRUE(RaisesAlarm(agent, "vm-first"));
}

TEST_F(PolicyReload, KeepsWhatIsInForceWhenTheNewPolicyIsBroken) {
    Agent agent(BUILD_FOLDER, DenyList());
    agent.Policies().Replace(kFile, "{\"content\": ");
    ASSERT_TRUE(agent.WaitForLog("Line 1, Column"));
    agent.Policies().Replace(
        kFile,
        R"({"module_name": "vmescape_module", "content": {"monitor_list": [{"virtcmd": 5, "cmdlist": []}]}})");
    ASSERT_TRUE(agent.WaitForLog(
        "/content/monitor_list/0/virtcmd: expected a non-empty string, found a number"));
    ASSERT_TRUE(WaitForLines(agent, "is refused, what was in force stays", 2));
    EXPECT_TRUE(RaisesAlarm(agent, "vm-kept"));
}

TEST_F(PolicyReload, SwitchesTheDetectionOffAndOn) {
    Json::Value policy;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(DenyList().c_str(), DenyList().length(), policy), 0);
    policy["enabled"] = false;
    Agent agent(BUILD_FOLDER, DenyList());
    agent.Policies().Replace(kFile, SDK::JsonUtils::JsonToString(policy));
    ASSERT_TRUE(WaitForLines(agent, "is in force", 2));
    {
        const Qemu qemu({"-name", "guest=vm-off"});
        qemu.RunShell("id");
    }
    agent.Policies().Replace(kFile, DenyList());
    ASSERT_TRUE(WaitForLines(agent, "is in force", 3));
    EXPECT_TRUE(RaisesAlarm(agent, "vm-on"));
    for (const Json::Value& alarm : agent.Alarms()) {
        EXPECT_EQ(Vm(alarm), "vm-on");
    }
}

TEST_F(PolicyReload, ReachesAVirtualMachineThatRunsAlready) {
    const std::string other = DenyList().replace(DenyList().find("qemu-system-x86_64"), 18, "kvm");
    Agent agent(BUILD_FOLDER, other);
    const Qemu qemu({"-name", "guest=vm-running"});
    agent.Policies().Replace(kFile, DenyList());
    ASSERT_TRUE(WaitForLines(agent, "is in force", 2));
    qemu.RunShell("id");
    const Json::Value alarm = WaitFor(agent, "system/fork", "id");
    EXPECT_EQ(alarm["forensic_info"]["monitor_process"].asString(), "qemu-system-x86_64");
    EXPECT_EQ(Vm(alarm), "vm-running");
}

TEST_F(PolicyReload, KeepsWhatIsInForceWhenTheFileIsRemoved) {
    Agent agent(BUILD_FOLDER, DenyList());
    std::filesystem::remove(agent.Policies() / kFile);
    ASSERT_TRUE(agent.WaitForLog("is gone, what was in force stays"));
    EXPECT_TRUE(RaisesAlarm(agent, "vm-kept"));
}

TEST_F(PolicyReload, ReadsAllPoliciesAgainOnAHangUp) {
    Agent agent(BUILD_FOLDER, DenyList(), {"--log-level", "information"});
    agent.Child().Signal(SIGHUP);
    EXPECT_TRUE(agent.WaitForLog("is in force already, nothing changes"));
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
}

}  // namespace
