#include "MachineList.h"

#include "ProcessesOfATest.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

const Agent::MachineList::Coverage kCoverage = {{"kvm", {"commands", "ports"}},
                                                {"helper", {"files"}}};

std::size_t Count(const ProcessesOfATest& processes) {
    return Agent::MachineList(processes.Get(), kCoverage).Count();
}

TEST(MachineList, CountsMonitoredProcessesWithNoneAboveThem) {
    ProcessesOfATest processes;
    processes.Add(1, 0, "systemd").Add(10, 1, "kvm").Add(11, 1, "kvm").Add(12, 1, "sshd");
    EXPECT_EQ(Count(processes), 2U);
    processes.Add(20, 10, "kvm").Add(21, 10, "sh").Add(22, 21, "helper").Add(23, 12, "helper");
    EXPECT_EQ(Count(processes), 3U) << "a helper that no machine started is one itself";
}

TEST(MachineList, CountsNoneWithoutProcessesOrRules) {
    ProcessesOfATest processes;
    EXPECT_EQ(Count(processes), 0U);
    processes.Add(1, 0, "kvm");
    EXPECT_EQ(Agent::MachineList(processes.Get(), {}).Count(), 0U);
}

TEST(MachineList, FollowsChildrenWithLowerNumbersThanTheirParents) {
    ProcessesOfATest processes;
    processes.Add(30000, 1, "kvm").Add(5, 30000, "kvm").Add(4, 5, "kvm");
    EXPECT_EQ(Count(processes), 1U);
}

TEST(MachineList, PassesOverAProcessThatNothingIsKnownOf) {
    ProcessesOfATest processes;
    processes.Add(10, 1, "kvm");
    Agent::MachineList::Processes map = processes.Get();
    map[11] = nullptr;
    EXPECT_EQ(Agent::MachineList(map, kCoverage).Count(), 1U);
}

TEST(MachineList, EndsAlsoWhereParentsGoRoundInACircle) {
    ProcessesOfATest processes;
    processes.Add(10, 11, "kvm").Add(11, 10, "sh").Add(12, 12, "kvm").Add(13, 11, "kvm");
    EXPECT_EQ(Count(processes), 1U);
}

TEST(MachineList, OfAChainOfAHundredThousandProcessesIsMadeAtOnce) {
    ProcessesOfATest chain;
    chain.Add(1, 0, "kvm");
    for (int pid = 2; pid <= 100000; ++pid) {
        chain.Add(pid, pid - 1, "sh");
    }
    // Going up from each would be five thousand million steps.
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Count(chain), 1U);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

}  // namespace
