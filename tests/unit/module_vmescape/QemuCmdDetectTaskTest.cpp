#include "OpenCmdTask.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "support/BurnTime.h"
#include "support/CapturedLog.h"
#include "support/FakeClock.h"
#include "support/VirtualSlot.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

namespace {

using Framework::Message;
using TestSupport::CapturedLog;
using TestSupport::Event;
using TestSupport::Exited;
using TestSupport::FakeClock;
using TestSupport::Process;
using TestSupport::Started;
using TestSupport::WaitUntil;
using Messages = std::vector<std::shared_ptr<Message>>;
using Requests = std::vector<std::pair<std::string, unsigned int>>;
using Strings = std::vector<std::string>;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

class CmdTask : public testing::Test {
protected:
    CmdTask() {
        m_task->Use({DENY_RULE});
        m_log.Clear();
    }
    ~CmdTask() override { Stop(); }

    void Run() { ASSERT_EQ(m_agent.Engine().RegisterTask(m_task, false), 0); }
    void Stop() { m_agent.Engine().UnRegisterTask("qemu_cmd_detect_task"); }
    void Handle(Messages messages) { m_task->CheckSensitiveCmd(messages); }
    std::size_t LinesOf(const std::string& text) { return m_log.Count(kDebug, text); }
    std::size_t Cleanings() { return LinesOf("Clean expired alarms from cache"); }

    /// The running task has gone once through its loop since the call.
    void Pass() {
        // The line is written early in a pass: with the second one the first pass is over.
        for (int i = 0; i < 2; ++i) {
            const std::size_t before = LinesOf("MsgVector size is 1 in CheckSensitiveCmd");
            m_task->GetInbox()->Send(std::make_shared<Message>("other"));
            ASSERT_TRUE(WaitUntil(
                [&] { return LinesOf("MsgVector size is 1 in CheckSensitiveCmd") > before; }));
        }
    }

    TestSupport::ScriptedAgent m_agent;
    CapturedLog m_log;
    OpenCmdTaskPtr m_task = new OpenCmdTask;
};

TEST_F(CmdTask, KnowsItsNameFeatureTypeAndCapacity) {
    EXPECT_EQ(m_task->name(), "qemu_cmd_detect_task");
    EXPECT_EQ(m_task->GetFeatureName(), "qemu_cmd_detect_feature");
    EXPECT_EQ(static_cast<int>(m_task->GetTaskType()), 4);
    EXPECT_EQ(m_task->GetInbox()->Capacity(), 4096U);
}

/// Alarms take it long.
class BusyCmdTask : public OpenCmdTask {
public:
    void SendAlarm(std::shared_ptr<Engine::ProcsMessage::procInfo> /*info*/,
                   const std::string& /*monitorProcess*/, const std::string& /*mode*/) override {
        TestSupport::BurnTime(std::chrono::milliseconds(20));
    }
};

TEST_F(CmdTask, KeepsToItsShareOfTheProcessor) {
    m_task = new BusyCmdTask;
    m_task->Use({ALLOW_RULE});
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    SDK::InnerCpuCtrlUtils::SetShare(5);
    Run();
    int pid = 100;
    EXPECT_TRUE(WaitUntil([&] {
        ++pid;
        m_task->GetInbox()->Send(
            Event(2, pid, Process(pid, "wget", "wget", 100, "qemu-kvm", "/usr/bin/wget")));
        const std::vector<CapturedLog::Line> lines = m_log.Lines();
        return std::any_of(lines.begin(), lines.end(), [](const CapturedLog::Line& line) {
            return line.text.rfind("Task(qemu_cmd_detect_task) is ahead of its share(5%)", 0) ==
                       0 &&
                   line.file == "QemuCmdDetectTask.cpp" && line.line == 46;
        });
    }));
    SDK::InnerCpuCtrlUtils::SetShare(0);
    Stop();
}

TEST_F(CmdTask, RegistersForForksExecsAndExitsInThisOrder) {
    EXPECT_EQ(m_task->Init(), 0);
    EXPECT_EQ(m_agent.Real().Requests(),
              (Requests{{"procs_regist", 1}, {"procs_regist", 2}, {"procs_regist", 3}}));
    EXPECT_EQ(m_log.Texts(kInformation),
              (Strings{"QemuCmdDetectTask init start", "QemuCmdDetectTask init finish"}));
}

TEST_F(CmdTask, UnregistersInThisOrderAndForgetsEverything) {
    m_task->UpdateMonitorProcessList(Process(100, "qemu-kvm", "qemu-kvm"));
    m_task->RecordExitProcess(100);
    m_task->UpdateAlarmCache("a", 1, "b", 2, "c");
    m_task->GetSystemShellList();
    m_log.Clear();
    m_task->UnInit();
    EXPECT_TRUE(m_task->m_monitorPidMap.empty());
    EXPECT_TRUE(m_task->m_exitPidMap.empty());
    EXPECT_TRUE(m_task->m_shellList.empty());
    EXPECT_TRUE(m_task->m_cmdWarnInfo.empty());
    EXPECT_TRUE(m_task->m_procCmdCache.empty());
    EXPECT_EQ(m_agent.Real().Requests(),
              (Requests{{"procs_unregist", 1}, {"procs_unregist", 2}, {"procs_unregist", 3}}));
    EXPECT_EQ(m_log.Texts(kInformation),
              (Strings{"QemuCmdDetectTask uninit start", "QemuCmdDetectTask uninit finish"}));
}

TEST_F(CmdTask, LeavesNoMessageWaitingAtItsEnd) {
    m_task->GetInbox()->Send(Started(Process(100, "qemu-kvm", "x")));
    m_task->UnInit();
    EXPECT_EQ(m_task->GetInbox()->Depth(), 0U);
}

TEST_F(CmdTask, AStartIsTrackedAndJudged) {
    Handle({Started(Process(100, "qemu-kvm", "qemu-kvm -name vm-01")),
            Event(1, 101, Process(101, "wget", "wget", 100, "qemu-kvm"))});
    EXPECT_EQ(m_agent.Reporter().Count(), 1U);
    EXPECT_EQ(LinesOf("MsgVector size is 2 in CheckSensitiveCmd"), 1U);
    EXPECT_EQ(LinesOf("Process(pid:101, name:wget, ppid:100) has created"), 1U);
}

TEST_F(CmdTask, AnExitIsRecorded) {
    Handle({Started(Process(100, "qemu-kvm", "qemu-kvm")), Exited(100)});
    EXPECT_EQ(m_task->m_exitPidMap.count(100), 1U);
    EXPECT_EQ(LinesOf("Process(100) has exited"), 1U);
}

TEST_F(CmdTask, AStartIsLoggedUnderThePidOfItsEvent) {
    Handle({Event(2, 555, Process(101, "wget", "w", 100, "qemu-kvm"))});
    EXPECT_EQ(LinesOf("Process(pid:555, name:wget, ppid:100) has created"), 1U);
    m_task->ProcsMessageAction(556, 2, Process(101, "wget", "w", 100, "qemu-kvm"));
    EXPECT_EQ(LinesOf("Process(pid:556, name:wget, cmd:w, ppid:100) has created"), 1U);
}

TEST_F(CmdTask, OtherFlagsAreIgnored) {
    Handle({Event(0, 100, Process(100, "qemu-kvm", "x")), Event(4, 100, nullptr)});
    EXPECT_TRUE(m_task->m_monitorPidMap.empty());
    EXPECT_EQ(m_log.Lines().size(), 1U);
}

TEST_F(CmdTask, AMessageOfAnotherTypeIsDroppedWithoutALine) {
    Handle({std::make_shared<Message>("filenotify")});
    EXPECT_EQ(m_log.Texts(kDebug), Strings{"MsgVector size is 1 in CheckSensitiveCmd"});
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(CmdTask, AMessageThatOnlyClaimsToBeAProcessMessageIsAnError) {
    Handle({std::make_shared<Message>("procs_message"),
            Started(Process(100, "qemu-kvm", "qemu-kvm"))});
    EXPECT_EQ(m_log.Texts(kError), Strings{"MsgData is null ptr in CheckSensitiveCmd"});
    EXPECT_EQ(m_task->m_monitorPidMap.count(100), 1U);
}

TEST_F(CmdTask, AnEmptyPlaceInABatchIsDroppedWithoutALine) {
    Handle({nullptr, Started(Process(100, "qemu-kvm", "qemu-kvm"))});
    EXPECT_TRUE(m_log.Texts(kError).empty());
    EXPECT_EQ(m_task->m_monitorPidMap.count(100), 1U);
}

TEST_F(CmdTask, AStartWithoutARecordIsLoggedAndIgnored) {
    Handle({Event(2, 100, nullptr)});
    EXPECT_EQ(m_log.Texts(kError), Strings{"ProcsMap iter is null"});
}

TEST_F(CmdTask, ADirectCallIsTrackedAndJudged) {
    m_task->ProcsMessageAction(100, 2, Process(100, "qemu-kvm", "qemu-kvm"));
    m_task->ProcsMessageAction(101, 1,
                               Process(101, "wget", "wget x", 100, "qemu-kvm", "/bin/wget"));
    m_task->ProcsMessageAction(100, 3, nullptr);
    EXPECT_EQ(m_agent.Reporter().Count(), 1U);
    EXPECT_EQ(m_task->m_exitPidMap.count(100), 1U);
    EXPECT_EQ(LinesOf("Recv Process(pid 101, flag 0x1)"), 1U);
    EXPECT_EQ(LinesOf("Process(pid:101, name:wget, cmd:wget x, ppid:100) has created"), 1U);
    EXPECT_EQ(LinesOf("Process(100) has exited"), 1U);
}

TEST_F(CmdTask, ADirectCallWithoutARecordOrOfAnotherKindIsIgnored) {
    m_task->ProcsMessageAction(100, 1, nullptr);
    m_task->ProcsMessageAction(100, 2, nullptr);
    m_task->ProcsMessageAction(100, 9, Process(100, "qemu-kvm", "x"));
    EXPECT_TRUE(m_task->m_monitorPidMap.empty());
    EXPECT_TRUE(m_log.Texts(kError).empty());
    EXPECT_EQ(m_log.Texts(kDebug).size(), 3U);
}

TEST_F(CmdTask, TheSnapshotIsTrackedFirstAndThenJudgedInPidOrder) {
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm -name vm-01"));
    m_agent.Full().Add(Process(101, "wget", "wget", 100, "qemu-kvm"));
    m_agent.Full().Add(Process(102, "x", "/tmp/x", 101, "wget"));
    EXPECT_TRUE(m_task->ProcessFullProcessInfo());
    const auto alarms = m_agent.Reporter().Alarms();
    ASSERT_EQ(alarms.size(), 2U);
    EXPECT_EQ(alarms[0]["process_info"][0]["process_pid"], 101);
    EXPECT_EQ(alarms[1]["process_info"][0]["process_pid"], 102);
}

TEST_F(CmdTask, AllOfTheSnapshotIsTrackedBeforeAnyOfItIsJudged) {
    m_agent.Full().Add(Process(50, "wget", "wget", 101, "helper"));
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    m_agent.Full().Add(Process(101, "helper", "helper", 100, "qemu-kvm"));
    EXPECT_TRUE(m_task->ProcessFullProcessInfo());
    const auto alarms = m_agent.Reporter().Alarms();
    ASSERT_EQ(alarms.size(), 1U);
    EXPECT_EQ(alarms[0]["process_info"][0]["process_pid"], 50);
    EXPECT_EQ(alarms[0]["forensic_info"]["monitor_process"], "qemu-kvm");
    EXPECT_EQ(alarms[0]["forensic_info"]["escape_mode"], "system/fork");
}

TEST_F(CmdTask, TheSnapshotIsJudgedWithTheShellsOfTheSystem) {
    std::ifstream file("/etc/shells");
    std::string shell;
    while (std::getline(file, shell) && shell.rfind('/', 0) != 0) {
    }
    ASSERT_EQ(shell.rfind('/', 0), 0U) << "a shell";
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    m_agent.Full().Add(Process(101, "helper", shell + " -i", 100, "qemu-kvm"));
    Run();
    ASSERT_TRUE(WaitUntil([&] { return m_agent.Reporter().Count() == 1; }));
    EXPECT_EQ(m_agent.Reporter().Alarms().front()["forensic_info"]["escape_mode"], "shell");
}

TEST_F(CmdTask, WithoutACollectorTheSnapshotFailsWithALine) {
    m_agent.Engine().UnRegisterTask("procs_full_task");
    EXPECT_FALSE(m_task->ProcessFullProcessInfo());
    EXPECT_EQ(m_log.Texts(kError), Strings{"procsTask is null"});
}

TEST_F(CmdTask, WhatIsNoCollectorFailsTheSnapshotLikeNone) {
    m_agent.Engine().UnRegisterTask("procs_full_task");
    Poco::AutoPtr<Framework::Task> stranger =
        new Framework::Task("procs_full_task", "", Framework::TaskCondition::RESIDENT_TASK, 8);
    m_agent.Engine().RegisterTask(stranger, true);
    EXPECT_FALSE(m_task->ProcessFullProcessInfo());
    EXPECT_EQ(m_log.Texts(kError), Strings{"procsTask is null"});
}

TEST(CmdTaskWithoutEngine, HasNoCollectorToAsk) {
    const CapturedLog log;
    OpenCmdTaskPtr task = new OpenCmdTask;
    std::map<int, TestSupport::ProcInfoPtr> procs{{1, nullptr}};
    EXPECT_FALSE(task->GetFullProcessInfo(procs));
    EXPECT_TRUE(procs.empty());
    EXPECT_EQ(log.Texts(kError), Strings{"procsTask is null"});
}

TEST_F(CmdTask, AnEmptySnapshotFailsSilentlyAndChangesNothing) {
    m_task->UpdateMonitorProcessList(Process(100, "qemu-kvm", "x"));
    m_log.Clear();
    EXPECT_FALSE(m_task->ProcessFullProcessInfo());
    EXPECT_TRUE(m_log.Lines().empty());
    EXPECT_EQ(m_task->m_monitorPidMap.count(100), 1U);
}

TEST_F(CmdTask, TriesTheSnapshotAgainUntilThereIsOneAndLeavesItsInboxAloneBefore) {
    m_agent.Engine().UnRegisterTask("procs_full_task");
    m_task->GetInbox()->Send(std::make_shared<Message>("other"));
    Run();
    EXPECT_TRUE(WaitUntil([&] { return m_log.Count(kError, "procsTask is null") > 3; }));
    EXPECT_EQ(m_task->GetInbox()->Depth(), 1U);
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    m_agent.Engine().RegisterTask(&m_agent.Full(), true);
    EXPECT_TRUE(
        WaitUntil([&] { return LinesOf("MsgVector size is 1 in CheckSensitiveCmd") == 1; }));
    EXPECT_EQ(LinesOf("ProccessMap size=1"), 1U);
}

TEST_F(CmdTask, ABatchOf200MessagesIsHandledIn128And72) {
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    Messages messages(200, std::make_shared<Message>("other"));
    m_task->GetInbox()->SendBulk(messages);
    Run();
    EXPECT_TRUE(
        WaitUntil([&] { return LinesOf("MsgVector size is 72 in CheckSensitiveCmd") == 1; }));
    EXPECT_EQ(LinesOf("MsgVector size is 128 in CheckSensitiveCmd"), 1U);
}

TEST_F(CmdTask, ABatchOf129MessagesIsHandledIn128And1) {
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    m_task->GetInbox()->SendBulk(Messages(129, std::make_shared<Message>("other")));
    Run();
    EXPECT_TRUE(
        WaitUntil([&] { return LinesOf("MsgVector size is 1 in CheckSensitiveCmd") == 1; }));
    EXPECT_EQ(LinesOf("MsgVector size is 128 in CheckSensitiveCmd"), 1U);
}

TEST_F(CmdTask, CleansTheAlarmsAndThenTheExitsAfter300SecondsButNotAfter299) {
    FakeClock clock;
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    Run();
    ASSERT_TRUE(WaitUntil([&] { return LinesOf("ProccessMap size=1") == 1; }));
    clock.Advance(299);
    Pass();
    EXPECT_EQ(Cleanings(), 0U);
    clock.Advance(1);
    Pass();
    EXPECT_EQ(Cleanings(), 1U);
    EXPECT_EQ(LinesOf("ExitList size is 0"), 1U);
    const Strings lines = m_log.Texts(kDebug);
    EXPECT_LT(std::find(lines.begin(), lines.end(), "Clean expired alarms from cache"),
              std::find(lines.begin(), lines.end(), "ExitList size is 0"));
}

TEST_F(CmdTask, CleansAgain300SecondsAfterTheLastCleaning) {
    FakeClock clock;
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    Run();
    ASSERT_TRUE(WaitUntil([&] { return LinesOf("ProccessMap size=1") == 1; }));
    clock.Advance(300);
    Pass();
    ASSERT_EQ(Cleanings(), 1U);
    clock.Advance(299);
    Pass();
    Pass();
    EXPECT_EQ(Cleanings(), 1U);
    clock.Advance(1);
    Pass();
    EXPECT_EQ(Cleanings(), 2U);
}

TEST_F(CmdTask, TheTimeToTheFirstCleaningRunsFromTheSnapshotThatSucceeds) {
    FakeClock clock;
    m_agent.Engine().UnRegisterTask("procs_full_task");
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    Run();
    const auto tries = [&] { return m_log.Count(kError, "procsTask is null"); };
    ASSERT_TRUE(WaitUntil([&] { return tries() > 0; }));
    clock.Advance(300);
    // Later tries than the one that may be under way have begun at the new time.
    const std::size_t before = tries();
    ASSERT_TRUE(WaitUntil([&] { return tries() > before + 1; }));
    m_agent.Engine().RegisterTask(&m_agent.Full(), true);
    ASSERT_TRUE(WaitUntil([&] { return LinesOf("ProccessMap size=1") == 1; }));
    Pass();
    EXPECT_EQ(Cleanings(), 0U);
    clock.Advance(300);
    Pass();
    EXPECT_EQ(Cleanings(), 1U);
}

TEST_F(CmdTask, CleansWithinASecondWhenNothingWakesIt) {
    FakeClock clock;
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    Run();
    ASSERT_TRUE(WaitUntil([&] { return LinesOf("ProccessMap size=1") == 1; }));
    clock.Advance(300);
    EXPECT_TRUE(WaitUntil([&] { return Cleanings() == 1; }));
}

TEST_F(CmdTask, ARestartedTaskBeginsWithASnapshotAndEmptyCaches) {
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    for (int round = 1; round <= 3; ++round) {
        m_log.Clear();
        Run();
        ASSERT_TRUE(WaitUntil([&] { return LinesOf("ProccessMap size=1") == 1; }));
        Stop();
        EXPECT_TRUE(m_task->m_monitorPidMap.empty());
    }
}

/// Keeps what Run left behind.
class KeepingCmdTask : public OpenCmdTask {
public:
    int UnInit() override { return 0; }
};

TEST_F(CmdTask, TheEndOfRunForgetsEverything) {
    Poco::AutoPtr<KeepingCmdTask> task = new KeepingCmdTask;
    task->Use({DENY_RULE});
    m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm"));
    m_agent.Full().Add(Process(101, "wget", "wget", 100, "qemu-kvm"));
    m_agent.Engine().RegisterTask(task, false);
    ASSERT_TRUE(WaitUntil([&] { return m_agent.Reporter().Count() == 1; }));
    task->GetInbox()->Send(Exited(101));
    ASSERT_TRUE(WaitUntil([&] { return LinesOf("Record Exit Process(101)") == 1; }));
    Stop();
    EXPECT_TRUE(task->m_monitorPidMap.empty());
    EXPECT_TRUE(task->m_exitPidMap.empty());
    EXPECT_TRUE(task->m_shellList.empty());
    EXPECT_TRUE(task->m_cmdWarnInfo.empty());
    EXPECT_TRUE(task->m_procCmdCache.empty());
}

TEST_F(CmdTask, ItsOwnOperationsStandBehindTheFrameworks) {
    using Engine::QemuCmdDetectTask;
    EXPECT_EQ(TestSupport::VirtualSlot(&QemuCmdDetectTask::Init), 6U);
    EXPECT_EQ(TestSupport::VirtualSlot(&QemuCmdDetectTask::ProcsMessageAction), 12U);
    EXPECT_EQ(TestSupport::VirtualSlot(&QemuCmdDetectTask::SendAlarm), 13U);
}

TEST_F(CmdTask, AReceiversHandlersStandInTheOrderThatCollectorsCallThem) {
    using Engine::AbstractMessageReceiver;
    EXPECT_EQ(TestSupport::VirtualSlot(&AbstractMessageReceiver::FileNotifyMessageAction), 0U);
    EXPECT_EQ(TestSupport::VirtualSlot(&AbstractMessageReceiver::ProcsMessageAction), 1U);
    EXPECT_EQ(TestSupport::VirtualSlot(&AbstractMessageReceiver::AssetMessageAction), 2U);
    EXPECT_EQ(TestSupport::VirtualSlot(&AbstractMessageReceiver::FtraceMessageAction), 3U);
    EXPECT_EQ(m_task->FileNotifyMessageAction(nullptr), 0);
}

}  // namespace
