#include "Inventory.h"

#include "ProcessesOfATest.h"

#include <gtest/gtest.h>

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

TEST_F(Inventory, TakesNoPolicyOfAFeatureThatThereIsNot) {
    m_inventory.TakePolicy("other", CommandPolicy("kvm"));
    m_processes.Add(10, 1, "kvm");
    EXPECT_EQ(Machines(), 0U);
}

}  // namespace
