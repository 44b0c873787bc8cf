#include "OpenCmdTask.h"
#include "support/CapturedLog.h"
#include "support/FakeClock.h"

#include <gtest/gtest.h>

namespace {

using TestSupport::CapturedLog;
using TestSupport::FakeClock;
using TestSupport::Process;
using TestSupport::ProcInfoPtr;
using PidMap = std::map<int, std::string>;
using ProcMap = std::map<int, ProcInfoPtr>;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

class CmdTracking : public testing::Test {
protected:
    CmdTracking() {
        m_task->Use({DENY_RULE});
        m_log.Clear();
    }

    void Start(const ProcInfoPtr& info) { m_task->UpdateMonitorProcessList(info); }
    void StartQemu() { Start(Process(100, "qemu-kvm", "qemu-kvm -name vm-01")); }
    void Fill(std::size_t count) {
        for (std::size_t i = m_task->m_monitorPidMap.size(); i < count; ++i) {
            m_task->m_monitorPidMap.emplace(1000 + static_cast<int>(i), "qemu-kvm");
        }
    }

    CapturedLog m_log;
    OpenCmdTaskPtr m_task = new OpenCmdTask;
};

TEST_F(CmdTracking, AMonitoredProgramIsInsertedUnderItsOwnName) {
    StartQemu();
    EXPECT_EQ(m_task->m_monitorPidMap, (PidMap{{100, "qemu-kvm"}}));
    EXPECT_EQ(m_task->m_procCmdCache.at("qemu-kvm"), "qemu-kvm -name vm-01");
    EXPECT_EQ(m_log.Count(kDebug, "m_monitorPidMap insert process(100,qemu-kvm)"), 1U);
    EXPECT_EQ(m_log.Count(kDebug,
                          "m_procCmdCache insert process info(name:qemu-kvm, "
                          "cmd:qemu-kvm -name vm-01)"),
              1U);
}

TEST_F(CmdTracking, DescendantsCarryTheNameOfTheRoot) {
    StartQemu();
    Start(Process(101, "sh", "sh -c id", 100, "qemu-kvm"));
    Start(Process(102, "id", "id", 101, "sh"));
    EXPECT_EQ(m_task->m_monitorPidMap,
              (PidMap{{100, "qemu-kvm"}, {101, "qemu-kvm"}, {102, "qemu-kvm"}}));
    EXPECT_EQ(m_log.Count(kDebug, "The parent(101,sh) of process(102,id) is in monitor list"), 1U);
    EXPECT_EQ(m_log.Count(kDebug, "MonitorPidMap size is 3"), 1U);
}

TEST_F(CmdTracking, AnUnrelatedProcessIsNotTracked) {
    StartQemu();
    Start(Process(200, "sh", "sh", 1, "init"));
    EXPECT_EQ(m_task->m_monitorPidMap.count(200), 0U);
}

TEST_F(CmdTracking, TheSamePidReportedTwiceOnlyLogs) {
    StartQemu();
    Start(Process(100, "other", "other", 1));
    EXPECT_EQ(m_task->m_monitorPidMap, (PidMap{{100, "qemu-kvm"}}));
    EXPECT_EQ(m_log.Count(kDebug, "m_monitorPidMap has exist process(100,other)"), 1U);
}

TEST_F(CmdTracking, TheFirstCommandLineOfAProgramStays) {
    StartQemu();
    Start(Process(110, "qemu-kvm", "qemu-kvm -name vm-02"));
    EXPECT_EQ(m_task->m_procCmdCache.at("qemu-kvm"), "qemu-kvm -name vm-01");
    EXPECT_EQ(m_log.Count(kDebug,
                          "m_procCmdCache insert process info(name:qemu-kvm, "
                          "cmd:qemu-kvm -name vm-02)"),
              1U)
        << "logged all the same";
}

TEST_F(CmdTracking, AProgramWithARuleBelowAnotherBelongsToTheRoot) {
    m_task->Use({DENY_RULE, R"({"virtcmd":"swtpm","action":false,"cmdlist":["curl"]})"});
    StartQemu();
    Start(Process(101, "swtpm", "swtpm -x", 100, "qemu-kvm"));
    EXPECT_EQ(m_task->m_monitorPidMap.at(101), "qemu-kvm");
    EXPECT_EQ(m_task->m_procCmdCache.count("swtpm"), 0U);
    EXPECT_EQ(m_log.Count(kDebug, "m_monitorPidMap insert process(101,swtpm)"), 0U);
}

TEST_F(CmdTracking, ANullRecordIsLogged) {
    Start(nullptr);
    EXPECT_EQ(m_log.Count(kError, "ProcsMap iter is null"), 1U);
}

TEST_F(CmdTracking, TheTwentyThousandthProcessIsStillTracked) {
    StartQemu();
    Fill(19999);
    Start(Process(101, "sh", "sh", 100, "qemu-kvm"));
    EXPECT_EQ(m_task->m_monitorPidMap.size(), 20000U);
    EXPECT_EQ(m_task->m_monitorPidMap.count(101), 1U);
}

TEST_F(CmdTracking, WithTwentyThousandTrackedANewOneIsRefusedAndLogged) {
    StartQemu();
    Fill(20000);
    Start(Process(101, "sh", "sh", 100, "qemu-kvm"));
    EXPECT_EQ(m_task->m_monitorPidMap.count(101), 0U);
    EXPECT_EQ(m_log.Count(kDebug,
                          "Insert process(101,sh) failed, because PidMap size has exceeded "
                          "the threshold(20000)"),
              1U);
}

TEST_F(CmdTracking, WithTwentyThousandTrackedAMonitoredProgramIsRefusedToo) {
    StartQemu();
    Fill(20000);
    Start(Process(5, "qemu-kvm", "x"));
    EXPECT_EQ(m_task->m_monitorPidMap.count(5), 0U);
    EXPECT_EQ(m_log.Count(kDebug,
                          "Insert process(5,qemu-kvm) failed, because PidMap size has exceeded "
                          "the threshold(20000)"),
              1U);
}

TEST_F(CmdTracking, WithTwentyThousandTrackedAKnownPidIsStillKnown) {
    StartQemu();
    Fill(20000);
    Start(Process(100, "qemu-kvm", "x"));
    EXPECT_EQ(m_log.Count(kDebug, "m_monitorPidMap has exist process(100,qemu-kvm)"), 1U);
    EXPECT_FALSE(m_log.Contains("Insert process(100,qemu-kvm) failed"));
}

TEST_F(CmdTracking, ASnapshotRebuildsTheViewAndKeepsTheOtherMaps) {
    StartQemu();
    m_task->RecordExitProcess(100);
    ProcMap snapshot{{300, Process(300, "qemu-kvm", "qemu-kvm -name vm-03")},
                     {301, Process(301, "sh", "sh", 300, "qemu-kvm")},
                     {302, nullptr}};
    m_task->UpdateMonitorProcessList(snapshot);
    EXPECT_EQ(m_task->m_monitorPidMap, (PidMap{{300, "qemu-kvm"}, {301, "qemu-kvm"}}));
    EXPECT_EQ(m_task->m_procCmdCache.at("qemu-kvm"), "qemu-kvm -name vm-01");
    EXPECT_EQ(m_task->m_exitPidMap.count(100), 1U);
    EXPECT_EQ(m_log.Count(kDebug, "ProccessMap size=3"), 1U);
    EXPECT_EQ(m_log.Count(kError, "ProcsMap iter is null"), 1U);
}

TEST_F(CmdTracking, AChildOfALowerPidThanItsParentIsMissedBySnapshots) {
    ProcMap snapshot{{50, Process(50, "sh", "sh", 100, "other")},
                     {100, Process(100, "qemu-kvm", "qemu-kvm")}};
    m_task->UpdateMonitorProcessList(snapshot);
    EXPECT_EQ(m_task->m_monitorPidMap, (PidMap{{100, "qemu-kvm"}}));
}

TEST_F(CmdTracking, AnExitIsRecordedOnceWithItsFirstTime) {
    FakeClock clock;
    const auto first = clock.Now();
    StartQemu();
    EXPECT_TRUE(m_task->RecordExitProcess(100));
    clock.Advance(10);
    EXPECT_TRUE(m_task->RecordExitProcess(100));
    EXPECT_EQ(m_task->m_exitPidMap.at(100), first);
    EXPECT_EQ(m_log.Count(kDebug, "Record Exit Process(100)"), 2U);
}

TEST_F(CmdTracking, TheExitOfAnUnmonitoredProcessIsNotStored) {
    EXPECT_FALSE(m_task->RecordExitProcess(100));
    EXPECT_TRUE(m_task->m_exitPidMap.empty());
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(CmdTracking, TheExitListTakesTwentyThousandAndNoMore) {
    StartQemu();
    for (int pid = 1000; pid < 1000 + 19999; ++pid) {
        m_task->m_exitPidMap.emplace(pid, 0);
    }
    EXPECT_TRUE(m_task->RecordExitProcess(100));
    EXPECT_EQ(m_task->m_exitPidMap.size(), 20000U);
    EXPECT_FALSE(m_task->RecordExitProcess(100));
    EXPECT_EQ(m_log.Count(kDebug, "ExitPidMap is full"), 1U);
}

TEST_F(CmdTracking, AFullExitListIsLoggedForUnmonitoredProcessesToo) {
    for (int pid = 1000; pid < 1000 + 20000; ++pid) {
        m_task->m_exitPidMap.emplace(pid, 0);
    }
    EXPECT_FALSE(m_task->RecordExitProcess(999999));
    EXPECT_EQ(m_log.Count(kDebug, "ExitPidMap is full"), 1U);
}

TEST_F(CmdTracking, WhatExited299SecondsAgoIsKept) {
    FakeClock clock;
    StartQemu();
    m_task->RecordExitProcess(100);
    clock.Advance(299);
    m_task->ClearExitProcess();
    EXPECT_EQ(m_task->m_monitorPidMap.count(100), 1U);
    EXPECT_EQ(m_task->m_exitPidMap.count(100), 1U);
    EXPECT_EQ(m_log.Count(kDebug, "ExitList size is 1"), 1U);
}

TEST_F(CmdTracking, WhatExited300SecondsAgoIsForgottenEverywhere) {
    FakeClock clock;
    StartQemu();
    m_task->RecordExitProcess(100);
    clock.Advance(300);
    m_task->ClearExitProcess();
    EXPECT_TRUE(m_task->m_monitorPidMap.empty());
    EXPECT_TRUE(m_task->m_exitPidMap.empty());
    EXPECT_TRUE(m_task->m_procCmdCache.empty());
    EXPECT_EQ(m_log.Count(kDebug, "Process(100) that exits erased in monitor list"), 1U);
    EXPECT_EQ(m_log.Count(kDebug, "Process(100) erased in exit list"), 1U);
}

TEST_F(CmdTracking, TheExitOfADescendantForgetsTheCommandLineOfTheRoot) {
    FakeClock clock;
    StartQemu();
    Start(Process(101, "sh", "sh", 100, "qemu-kvm"));
    m_task->RecordExitProcess(101);
    clock.Advance(300);
    m_task->ClearExitProcess();
    EXPECT_EQ(m_task->m_monitorPidMap, (PidMap{{100, "qemu-kvm"}}));
    EXPECT_TRUE(m_task->m_procCmdCache.empty());
    EXPECT_EQ(m_log.Count(kDebug, "Process(101) that exits erased in monitor list"), 1U);
}

TEST_F(CmdTracking, AYoungExitDoesNotKeepOlderOnesBehindItInTheList) {
    FakeClock clock;
    StartQemu();
    Start(Process(110, "qemu-kvm", "qemu-kvm -name vm-02"));
    m_task->RecordExitProcess(110);
    clock.Advance(1);
    m_task->RecordExitProcess(100);
    clock.Advance(299);
    m_task->ClearExitProcess();
    EXPECT_EQ(m_task->m_monitorPidMap, (PidMap{{100, "qemu-kvm"}}));
    EXPECT_EQ(m_task->m_exitPidMap.size(), 1U);
    EXPECT_EQ(m_task->m_exitPidMap.count(100), 1U);
    EXPECT_EQ(m_log.Count(kDebug, "ExitList size is 2"), 1U);
    EXPECT_EQ(m_log.Count(kDebug, "Process(110) erased in exit list"), 1U);
}

TEST_F(CmdTracking, AnExitWhosePidIsNoLongerTrackedOnlyLeavesTheExitList) {
    FakeClock clock;
    StartQemu();
    m_task->RecordExitProcess(100);
    m_task->m_monitorPidMap.clear();
    clock.Advance(300);
    m_task->ClearExitProcess();
    EXPECT_TRUE(m_task->m_exitPidMap.empty());
    EXPECT_EQ(m_task->m_procCmdCache.count("qemu-kvm"), 1U);
    EXPECT_EQ(m_log.Count(kDebug, "Process(100) that exits erased in monitor list"), 0U);
}

TEST_F(CmdTracking, AChildOfAProcessThatExitedIsStillRecognised) {
    FakeClock clock;
    StartQemu();
    m_task->RecordExitProcess(100);
    clock.Advance(299);
    m_task->ClearExitProcess();
    Start(Process(101, "sh", "sh", 100, "qemu-kvm"));
    EXPECT_EQ(m_task->m_monitorPidMap.at(101), "qemu-kvm");
}

TEST_F(CmdTracking, WithoutAPolicyNothingIsMonitoredAndThatIsAnError) {
    OpenCmdTaskPtr bare = new OpenCmdTask;
    EXPECT_FALSE(bare->IsMonitorProcess("qemu-kvm", 100));
    EXPECT_EQ(m_log.Texts(kError),
              std::vector<std::string>{
                  "m_featurePolicy is null pointer in QemuCmdDetectTask::IsMonitorProcess"});
}

TEST_F(CmdTracking, APolicyOfAnotherFeatureMonitorsNothingSilently) {
    m_task->AttachFeaturePolicy(std::make_shared<Framework::FeaturePolicy>("other"));
    EXPECT_FALSE(m_task->IsMonitorProcess("qemu-kvm", 100));
    EXPECT_FALSE(m_task->IsSensitiveCmd("qemu-kvm", "wget", "wget", ""));
    EXPECT_TRUE(m_log.Lines().empty());
}

}  // namespace
