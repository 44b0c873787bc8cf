#include "Inventory.h"

#include "ProcessesOfATest.h"
#include "sdk/JsonUtils.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

std::string CommandPolicy(const std::string& program, bool enabled = true) {
    return std::string(R"({"enabled":)") + (enabled ? "true" : "false") +
           R"(,"hash":"h","content":{"monitor_list":[{"virtcmd":")" + program +
           R"(","cmdlist":["/bin/a"]}]}})";
}

class Inventory : public testing::Test {
protected:
    std::size_t Machines() const { return m_inventory.CountMachines(m_processes.Get()); }

    ProcessesOfATest m_processes;
    Agent::Inventory m_inventory;
};

TEST_F(Inventory, CountsTheMachinesThatAnEnabledPolicyHasARuleFor) {
    m_processes.Add(10, 1, "kvm").Add(11, 1, "qemu").Add(12, 1, "sshd");
    EXPECT_EQ(Machines(), 0U);
    m_inventory.TakePolicy("qemu_cmd_detect_feature", CommandPolicy("kvm"));
    EXPECT_EQ(Machines(), 1U);
    m_inventory.TakePolicy(
        "qemu_port_detect_feature",
        R"({"content":{"monitor_list":[{"virtmonitor":"qemu","portlist":[]}]}})");
    EXPECT_EQ(Machines(), 2U);
    m_inventory.TakePolicy("qemu_cmd_detect_feature", CommandPolicy("kvm", false));
    EXPECT_EQ(Machines(), 1U);
}

TEST_F(Inventory, TellsThePoliciesInForceWithTheRulesThatCount) {
    m_inventory.TakePolicy("qemu_cmd_detect_feature", CommandPolicy("kvm"));
    m_inventory.TakePolicy(
        "qemu_file_detect_feature",
        R"({"enabled":false,"content":{"action":false,"senstive_dirs":["/etc"],"monitor_list":[)"
        R"({"virtmonitor":"a","filelist":[]},{"virtmonitor":"a","filelist":["/x"]}]}})");
    const Json::Value policies = m_inventory.Document({})["policies"];
    ASSERT_EQ(policies.size(), 2U);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(policies[0]),
              R"({"detection":"commands","enabled":true,"feature":"qemu_cmd_detect_feature",)"
              R"("hash":"h","ignored":{"entries":0,"rules":0},)"
              R"("rules":[{"entries":["/bin/a"],"list":"allow","program":"kvm"}]})");
    EXPECT_EQ(SDK::JsonUtils::JsonToString(policies[1]),
              R"({"detection":"files","directories":["/etc"],"enabled":false,)"
              R"("feature":"qemu_file_detect_feature","hash":"","ignored":{"entries":0,"rules":1},)"
              R"("rules":[{"entries":[],"list":"deny","program":"a"}]})");
}

TEST_F(Inventory, NamesTheDetectionsThatCoverAMachine) {
    m_inventory.TakePolicy("qemu_cmd_detect_feature", CommandPolicy("kvm"));
    m_inventory.TakePolicy("qemu_port_detect_feature",
                           R"({"content":{"monitor_list":[{"virtmonitor":"kvm","portlist":[]}]}})");
    m_processes.Add(10, 1, "kvm", "kvm -name vm-01");
    Json::Value machines = m_inventory.Document(m_processes.Get())["machines"];
    ASSERT_EQ(machines.size(), 1U);
    EXPECT_EQ(machines[0]["vm_name"].asString(), "vm-01");
    EXPECT_EQ(SDK::JsonUtils::JsonToString(machines[0]["detections"]), R"(["commands","ports"])");
    m_inventory.TakePolicy("qemu_cmd_detect_feature", CommandPolicy("kvm", false));
    machines = m_inventory.Document(m_processes.Get())["machines"];
    EXPECT_EQ(SDK::JsonUtils::JsonToString(machines[0]["detections"]), R"(["ports"])");
}

TEST_F(Inventory, ReadsAsTables) {
    m_inventory.TakePolicy("qemu_cmd_detect_feature",
                           R"({"hash":"h","content":{"monitor_list":[)"
                           R"({"virtcmd":"kvm","cmdlist":["/bin/a","/bin/b"]},)"
                           R"({"virtcmd":"qemu","cmdlist":["/bin/a","/bin/b"]},)"
                           R"({"virtcmd":"qemu","cmdlist":[]},)"
                           R"({"virtcmd":"last","action":false,"cmdlist":[]}]}})");
    m_inventory.TakePolicy("qemu_file_detect_feature",
                           R"({"enabled":false,"content":{"senstive_dirs":["/etc","/root"],)"
                           R"("monitor_list":[{"virtmonitor":"kvm","filelist":["/x"]}]}})");
    m_processes.Add(10, 1, "kvm", "kvm -name vm-01").Add(11, 10, "sh").Add(12, 11, "qemu");
    EXPECT_EQ(Agent::Inventory::ToText(m_inventory.Document(m_processes.Get())),
              R"(commands (qemu_cmd_detect_feature): enabled, hash "h"
list     entries
allow          2  /bin/a, /bin/b
    for kvm, qemu
deny           0  (nothing)
    for last
ignored: 1 rules, 0 entries

files (qemu_file_detect_feature): NOT ENABLED, nothing is detected, hash ""
directories: /etc, /root
list     entries
allow          1  /x
    for kvm

ports (qemu_port_detect_feature): no policy is in force, nothing is detected

virtual machine                  pid  process               since                 below  detections
vm-01                             10  kvm                                             2  commands
  below 10                        12  qemu                                            0  commands
)");
}

TEST_F(Inventory, AsTextShowsTheBeginningOfLongListsAndAllPrograms) {
    Json::Value policy;
    for (int program = 0; program < 20; ++program) {
        Json::Value& rule = policy["content"]["monitor_list"].append(Json::objectValue);
        rule["virtmonitor"] = "program-" + std::to_string(program);
        for (int port = 1000; port < 1090; ++port) {
            rule["portlist"].append(std::to_string(port));
        }
    }
    m_inventory.TakePolicy("qemu_port_detect_feature", SDK::JsonUtils::JsonToString(policy));
    const std::string text = Agent::Inventory::ToText(m_inventory.Document({}));
    EXPECT_NE(text.find("allow         90  1000, 1001, 1002, 1003, 1004, 1005, 1006, 1007, 1008, "
                        "1009, 1010, 1011 and 78 more\n    for program-0, program-1, "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(",\n        program-8, "), std::string::npos) << text;
    EXPECT_NE(text.find(" program-19\n"), std::string::npos) << text;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.length(), 100U) << line;
    }
}

TEST_F(Inventory, AsTextLetsNothingMoveTheCursorOrFakeALine) {
    m_inventory.TakePolicy("qemu_cmd_detect_feature", CommandPolicy(R"(k\u001bvm)"));
    m_processes.Add(10, 1, "k\x1bvm", "kvm -name vm\x1b[2J\nvm-02\u202e");
    const std::string text = Agent::Inventory::ToText(m_inventory.Document(m_processes.Get()));
    EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
    EXPECT_NE(text.find("\nvm\\x1b[2J\\nvm-02\\u202e            10  k\\x1bvm "), std::string::npos)
        << text;
}

TEST_F(Inventory, AsTextSaysHowManyProcessesItDoesNotShow) {
    m_inventory.TakePolicy("qemu_cmd_detect_feature", CommandPolicy("kvm"));
    for (int pid = 1; pid <= 1003; ++pid) {
        m_processes.Add(pid, 0, "kvm");
    }
    const Json::Value document = m_inventory.Document(m_processes.Get());
    EXPECT_EQ(document["omitted"].asUInt(), 3U);
    EXPECT_EQ(document["machines"].size(), 1000U);
    const std::string text = Agent::Inventory::ToText(document);
    EXPECT_NE(text.find("\nand 3 more monitored processes\n"), std::string::npos) << text;
    EXPECT_EQ(Machines(), 1003U);
}

TEST_F(Inventory, TakesNoPolicyOfAFeatureThatThereIsNot) {
    m_inventory.TakePolicy("other", CommandPolicy("kvm"));
    m_processes.Add(10, 1, "kvm");
    EXPECT_EQ(Machines(), 0U);
}

}  // namespace
