#include "MachineList.h"

#include "ProcessesOfATest.h"
#include "Shown.h"
#include "sdk/JsonUtils.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <set>

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

Json::Value List(const ProcessesOfATest& processes) {
    std::size_t omitted = 99;
    Json::Value list = Agent::MachineList(processes.Get(), kCoverage).ToJson(omitted);
    EXPECT_EQ(omitted, 0U);
    return list;
}

TEST(MachineList, TellsOfEachMachineWhatItIs) {
    ProcessesOfATest processes;
    processes.Add(1, 0, "systemd").Add(10, 1, "kvm", "kvm -name guest=vm-01,debug-threads=on -S");
    processes.Add(11, 1, "helper", "helper").Add(12, 10, "sh").Add(13, 12, "id").Add(14, 1, "sh");
    const Json::Value list = List(processes);
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0]["pid"].asInt(), 10);
    EXPECT_EQ(list[0]["name"].asString(), "kvm");
    EXPECT_EQ(list[0]["vm_name"].asString(), "vm-01");
    EXPECT_EQ(list[0]["below"].asUInt(), 2U);
    EXPECT_EQ(list[0]["since"].asString(), "");
    EXPECT_EQ(SDK::JsonUtils::JsonToString(list[0]["detections"]), R"(["commands","ports"])");
    EXPECT_TRUE(list[0]["processes"].empty());
    EXPECT_EQ(list[1]["pid"].asInt(), 11);
    EXPECT_EQ(list[1]["vm_name"].asString(), "Unknow");
    EXPECT_EQ(list[1]["below"].asUInt(), 0U);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(list[1]["detections"]), R"(["files"])");
}

TEST(MachineList, ShowsMonitoredProcessesBelowTheirMachine) {
    ProcessesOfATest processes;
    processes.Add(10, 1, "kvm").Add(20, 1, "kvm").Add(21, 20, "sh").Add(22, 21, "helper");
    processes.Add(23, 22, "kvm").Add(24, 23, "sh");
    const Json::Value list = List(processes);
    ASSERT_EQ(list.size(), 2U);
    EXPECT_TRUE(list[0]["processes"].empty());
    EXPECT_EQ(list[1]["below"].asUInt(), 4U);
    ASSERT_EQ(list[1]["processes"].size(), 2U);
    EXPECT_EQ(list[1]["processes"][0]["pid"].asInt(), 22);
    EXPECT_EQ(list[1]["processes"][0]["below"].asUInt(), 2U);
    EXPECT_EQ(list[1]["processes"][1]["pid"].asInt(), 23);
    EXPECT_FALSE(list[1]["processes"][0].isMember("processes"));
}

TEST(MachineList, TellsSinceWhenAProcessLives) {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    constexpr std::int64_t kAgoS = 100;
    ProcessesOfATest processes;
    processes.Add(10, 1, "kvm", "", static_cast<std::uint64_t>(now.tv_sec - kAgoS) * 1000000000);
    std::set<std::string> good;
    for (std::int64_t off = -2; off <= 2; ++off) {
        good.insert(Agent::ShowTime(std::time(nullptr) - kAgoS + off));
    }
    const std::string since = List(processes)[0]["since"].asString();
    EXPECT_EQ(good.count(since), 1U) << since;
}

TEST(MachineList, ShowsAThousandProcessesAndMachinesFirst) {
    constexpr int kMachines = 600;
    ProcessesOfATest processes;
    for (int i = 1; i <= kMachines; ++i) {
        processes.Add(2 * i, 1, "kvm").Add(2 * i + 1, 2 * i, "helper");
    }
    std::size_t omitted = 0;
    const Agent::MachineList machines(processes.Get(), kCoverage);
    const Json::Value list = machines.ToJson(omitted);
    EXPECT_EQ(machines.Count(), std::size_t{kMachines});
    EXPECT_EQ(list.size(), unsigned{kMachines});
    EXPECT_EQ(omitted, 200U);
    EXPECT_EQ(list[399]["processes"].size(), 1U);
    EXPECT_EQ(list[400]["processes"].size(), 0U);
}

TEST(MachineList, ShortensWhatSomebodyChoseToBeLong) {
    ProcessesOfATest processes;
    processes.Add(10, 1, "kvm", "kvm -name " + std::string(4000, 'n'));
    EXPECT_EQ(List(processes)[0]["vm_name"].asString(), std::string(300, 'n') + "...");
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
