#include "OpenFileTask.h"
#include "filenotify/FileNotifyMessage.h"
#include "framework/AbstractMessageReceiver.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "support/BurnTime.h"
#include "support/CapturedLog.h"
#include "support/FakeClock.h"
#include "support/TemporaryFolder.h"
#include "support/VirtualSlot.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using Engine::FileNotifyMessage;
using TestSupport::CapturedLog;
using TestSupport::FakeClock;
using TestSupport::Process;
using TestSupport::WaitUntil;
using Messages = std::vector<std::shared_ptr<Framework::Message>>;
using Strings = std::vector<std::string>;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

class FileTask : public testing::Test {
protected:
    FileTask() {
        m_agent.Engine().RegisterTask(m_notifier, true);
        m_task->Use(FilePolicy({"/a", "/b"}));
        m_log.Clear();
    }
    ~FileTask() override {
        Stop();
        m_agent.Engine().UnRegisterTask("filenotify_task");
    }

    void Run() { ASSERT_EQ(m_agent.Engine().RegisterTask(m_task, false), 0); }
    void Stop() { m_agent.Engine().UnRegisterTask("qemu_file_detect_task"); }
    std::size_t Refreshes() {
        return m_log.Count(kDebug, "MonitorProcessList add process(pid:1,name:qemu-kvm)");
    }

    /// The running task has gone once through its loop since the call.
    void Pass() {
        // The line is written in the middle of a pass: with the second one the first pass is over.
        for (int i = 0; i < 2; ++i) {
            const auto handled = [&] {
                return m_log.Count(kDebug, "MsgVector size is 1 in CheckSensitiveFile");
            };
            const std::size_t before = handled();
            m_task->GetInbox()->Send(std::make_shared<Framework::Message>("other"));
            ASSERT_TRUE(WaitUntil([&] { return handled() > before; }));
        }
    }

    TestSupport::ScriptedAgent m_agent;
    Poco::AutoPtr<ScriptedNotifier> m_notifier = new ScriptedNotifier;
    CapturedLog m_log;
    OpenFileTaskPtr m_task = new OpenFileTask;
};

TEST_F(FileTask, KnowsItsNameFeatureTypeAndCapacity) {
    EXPECT_EQ(m_task->name(), "qemu_file_detect_task");
    EXPECT_EQ(m_task->GetFeatureName(), "qemu_file_detect_feature");
    EXPECT_EQ(static_cast<int>(m_task->GetTaskType()), 4);
    EXPECT_EQ(m_task->GetInbox()->Capacity(), 1024U);
}

/// Alarms take it long.
class BusyFileTask : public OpenFileTask {
public:
    void SendAlarm(const std::string& /*monitorProcess*/, const std::string& /*processName*/,
                   int /*pid*/, const std::string& /*filePath*/,
                   const std::string& /*fileAction*/) override {
        TestSupport::BurnTime(std::chrono::milliseconds(20));
    }
};

TEST_F(FileTask, KeepsToItsShareOfTheProcessor) {
    const TestSupport::TemporaryFolder folder;
    m_task = new BusyFileTask;
    m_task->Use(FilePolicy({}));
    m_task->m_monitorPidMap[1] = "qemu-kvm";
    m_agent.Full().Add(Process(1, "qemu-kvm", "qemu-kvm"));
    SDK::InnerCpuCtrlUtils::SetShare(5);
    Run();
    const std::string file = folder.Write("secret", "");
    const auto slept = [this] {
        const std::vector<CapturedLog::Line> lines = m_log.Lines();
        return std::any_of(lines.begin(), lines.end(), [](const CapturedLog::Line& line) {
            return line.text.rfind("Task(qemu_file_detect_task) is ahead of its share(5%)", 0) ==
                       0 &&
                   line.file == "QemuFileDetectTask.cpp";
        });
    };
    EXPECT_TRUE(WaitUntil([&] {
        m_task->GetInbox()->Send(
            std::make_shared<FileNotifyMessage>(1, FileNotifyMessage::OPEN, file));
        return slept();
    }));
    SDK::InnerCpuCtrlUtils::SetShare(0);
    Stop();
}

TEST_F(FileTask, AsksForTheWatchesOfItsPolicyAtOnce) {
    m_task->m_watchedDirs = {"/old"};
    m_task->m_monitorPidMap[1] = "x";
    m_task->m_monitorCmdlineMap["x"] = "y";
    m_task->UpdateAlarmCache("a", 1, "b", "c");
    EXPECT_EQ(m_task->Init(), 0);
    EXPECT_EQ(m_notifier->Take(), (Strings{"+/a", "+/b"}));
    EXPECT_EQ(m_task->m_watchedDirs, (std::set<std::string>{"/a", "/b"}));
    EXPECT_TRUE(m_task->m_monitorPidMap.empty());
    EXPECT_TRUE(m_task->m_monitorCmdlineMap.empty());
    EXPECT_TRUE(m_task->m_fileWarnInfo.empty());
    EXPECT_EQ(m_log.Texts(kInformation),
              (Strings{"QemuFileDetectTask init start",
                       "QemuFileDetectTask add file(path:/a) monitoring to filenotify_task ",
                       "QemuFileDetectTask add file(path:/b) monitoring to filenotify_task ",
                       "QemuFileDetectTask init finish"}));
}

TEST_F(FileTask, TakesItsWatchesBackInOrderAndForgetsEverything) {
    m_task->Init();
    m_notifier->Take();
    m_task->m_monitorPidMap[1] = "x";
    m_task->m_monitorCmdlineMap["x"] = "y";
    m_task->UpdateAlarmCache("a", 1, "b", "c");
    m_log.Clear();
    EXPECT_EQ(m_task->UnInit(), 0);
    EXPECT_EQ(m_notifier->Take(), (Strings{"-/a", "-/b"}));
    EXPECT_TRUE(m_task->m_watchedDirs.empty());
    EXPECT_TRUE(m_task->m_monitorPidMap.empty());
    EXPECT_TRUE(m_task->m_monitorCmdlineMap.empty());
    EXPECT_TRUE(m_task->m_fileWarnInfo.empty());
    EXPECT_EQ(m_log.Texts(kInformation),
              (Strings{"QemuFileDetectTask uninit start",
                       "QemuFileDetectTask remove file(path:/a) monitoring to filenotify_task ",
                       "QemuFileDetectTask remove file(path:/b) monitoring to filenotify_task ",
                       "QemuFileDetectTask uninit finish"}));
}

TEST_F(FileTask, LeavesNoMessageWaitingAtItsEnd) {
    m_task->GetInbox()->Send(
        std::make_shared<FileNotifyMessage>(1, FileNotifyMessage::OPEN, "/a/x"));
    m_task->UnInit();
    EXPECT_EQ(m_task->GetInbox()->Depth(), 0U);
}

TEST_F(FileTask, ARequestHasItsMaskAndTwoFlagsAndNothingElse) {
    EXPECT_TRUE(m_task->SendFileNotifyWatchMessage("/x", "add"));
    EXPECT_TRUE(m_task->SendFileNotifyWatchMessage("/x", "delete"));
    EXPECT_TRUE(m_task->SendFileNotifyWatchMessage("/x", "Add"));
    const auto requests = m_notifier->Requests();
    ASSERT_EQ(requests.size(), 3U);
    for (const ScriptedNotifier::Request& request : requests) {
        const _FileNotifyOpt& options = request.m_options;
        EXPECT_EQ(request.m_path, "/x");
        EXPECT_EQ(request.m_masks, std::vector<unsigned int>{1});
        EXPECT_EQ(request.m_inbox, m_task->GetInbox());
        EXPECT_TRUE(options.m_recursive);
        EXPECT_FALSE(options.m_unused2 || options.m_unused3 || options.m_unused4 ||
                     options.m_unused5 || options.m_unused8);
        EXPECT_TRUE(options.m_unusedList1.empty() && options.m_unusedList2.empty());
        EXPECT_EQ(options.m_unusedNumber1 + options.m_unusedNumber2, 0U);
    }
    EXPECT_TRUE(requests[0].m_options.m_add && !requests[0].m_options.m_remove);
    EXPECT_TRUE(!requests[1].m_options.m_add && requests[1].m_options.m_remove);
    EXPECT_TRUE(!requests[2].m_options.m_add && requests[2].m_options.m_remove)
        << "any word but \"add\" removes";
}

TEST_F(FileTask, ARequestThatIsNotTakenIsToldAndLoggedAllTheSame) {
    m_agent.Engine().UnRegisterTask("filenotify_task");
    EXPECT_FALSE(m_task->SendFileNotifyWatchMessage("/x", "add"));
    EXPECT_EQ(m_log.Count(kInformation,
                          "QemuFileDetectTask add file(path:/x) monitoring to filenotify_task "),
              1U);
    EXPECT_TRUE(m_task->RegisterFileMonitorMessage()) << "the set changed";
    EXPECT_EQ(m_task->m_watchedDirs.size(), 2U);
    EXPECT_FALSE(m_task->RegisterFileMonitorMessage()) << "not tried again";
}

TEST_F(FileTask, ARequestThatIsNotTakenDoesNotHinderTheNext) {
    m_agent.Engine().UnRegisterTask("filenotify_task");
    EXPECT_TRUE(m_task->RegisterFileMonitorMessage());
    EXPECT_FALSE(m_task->UnregisterFileMonitorMessage());
    EXPECT_EQ(m_log.Texts(kInformation),
              (Strings{"QemuFileDetectTask add file(path:/a) monitoring to filenotify_task ",
                       "QemuFileDetectTask add file(path:/b) monitoring to filenotify_task ",
                       "QemuFileDetectTask remove file(path:/a) monitoring to filenotify_task ",
                       "QemuFileDetectTask remove file(path:/b) monitoring to filenotify_task "}));
}

TEST_F(FileTask, ChangesAreAskedForInTheOrderOfTheirPaths) {
    m_task->RegisterFileMonitorMessage();
    m_notifier->Take();
    m_task->Use(FilePolicy({"/c", "/b"}));
    EXPECT_TRUE(m_task->RegisterFileMonitorMessage());
    EXPECT_EQ(m_notifier->Take(), (Strings{"-/a", "+/c"}));
    EXPECT_FALSE(m_task->RegisterFileMonitorMessage());
    EXPECT_EQ(m_notifier->Take(), Strings());
}

TEST_F(FileTask, WithoutDirectoriesNothingIsWatchedNorTakenBack) {
    m_task->Use(FilePolicy({}));
    m_task->Init();
    m_task->UnInit();
    EXPECT_EQ(m_notifier->Take(), Strings());
}

TEST_F(FileTask, WithoutAPolicyTheWatchesStay) {
    const OpenFileTaskPtr task = new OpenFileTask;
    OpenFileTaskPtr(task)->m_watchedDirs = {"/a"};
    Engine::QemuFileDetectTask::DirChanges changes;
    EXPECT_FALSE(OpenFileTaskPtr(task)->UpdateMonitorDirChanges(changes));
    EXPECT_FALSE(OpenFileTaskPtr(task)->RegisterFileMonitorMessage());
    EXPECT_EQ(task->m_watchedDirs, std::set<std::string>{"/a"});
    EXPECT_EQ(m_log.Count(kError,
                          "m_featurePolicy is null pointer in "
                          "QemuFileDetectTask::UpdateMonitorDirChange"),
              2U);
}

TEST_F(FileTask, UnderAPolicyOfAnotherKindTheWatchesStayWithoutALine) {
    m_task->m_watchedDirs = {"/a"};
    m_task->AttachFeaturePolicy(std::make_shared<Framework::FeaturePolicy>("other"));
    EXPECT_FALSE(m_task->RegisterFileMonitorMessage());
    EXPECT_EQ(m_task->m_watchedDirs, std::set<std::string>{"/a"});
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(FileTask, RefreshesItsProcessesUntilThatSucceedsAndThenOnlyOnChanges) {
    Run();
    ASSERT_TRUE(WaitUntil([&] { return m_log.Contains("init finish"); }));
    m_agent.Full().Add(Process(1, "qemu-kvm", "qemu-kvm"));
    ASSERT_TRUE(WaitUntil([&] { return Refreshes() == 1; }));
    m_task->Use(FilePolicy({"/c"}));
    EXPECT_TRUE(WaitUntil([&] { return Refreshes() == 2; }));
    EXPECT_TRUE(WaitUntil([&] { return m_notifier->Requests().size() == 5; }));
}

TEST_F(FileTask, ARefreshThatFailsAfterAChangeIsNotTriedAgain) {
    m_agent.Full().Add(Process(1, "qemu-kvm", "qemu-kvm"));
    Run();
    ASSERT_TRUE(WaitUntil([&] { return Refreshes() == 1; }));
    m_agent.Engine().UnRegisterTask("procs_full_task");
    m_task->Use(FilePolicy({"/c"}));
    Pass();
    ASSERT_EQ(m_log.Count(kError, "procsTask is null"), 1U);
    m_agent.Engine().RegisterTask(&m_agent.Full(), true);
    Pass();
    EXPECT_EQ(Refreshes(), 1U);
    EXPECT_EQ(m_log.Count(kError, "procsTask is null"), 1U);
}

TEST_F(FileTask, ABatchOf200MessagesIsHandledIn128And72) {
    m_task->GetInbox()->SendBulk(
        Messages(200, std::make_shared<FileNotifyMessage>(1, FileNotifyMessage::OPEN, "/a/x")));
    Run();
    EXPECT_TRUE(WaitUntil(
        [&] { return m_log.Count(kDebug, "MsgVector size is 72 in CheckSensitiveFile") == 1; }));
    EXPECT_EQ(m_log.Count(kDebug, "MsgVector size is 128 in CheckSensitiveFile"), 1U);
}

TEST_F(FileTask, JudgesItsMessages) {
    const TestSupport::TemporaryFolder folder;
    const std::string file = folder.Write("secret", "x");
    m_agent.Full().Add(Process(1, "qemu-kvm", "qemu-kvm -name vm-01"));
    Run();
    ASSERT_TRUE(WaitUntil([&] { return Refreshes() == 1; }));
    for (int i = 0; i < 300; ++i) {
        std::shared_ptr<Framework::Message> message =
            std::make_shared<FileNotifyMessage>(1, FileNotifyMessage::OPEN, file);
        m_task->EnqueueMsg(message);
    }
    EXPECT_TRUE(WaitUntil([&] {
        return m_log.Count(kDebug, "Process(1) access file:(path:" + file + ",mask:32)") == 300;
    }));
    EXPECT_EQ(m_agent.Reporter().Count(), 1U);
    EXPECT_FALSE(m_log.Contains("MsgVector size is 129"));
}

TEST_F(FileTask, CleansAndRefreshesAfter300Seconds) {
    FakeClock clock;
    m_agent.Full().Add(Process(1, "qemu-kvm", "qemu-kvm"));
    Run();
    ASSERT_TRUE(WaitUntil([&] { return Refreshes() == 1; }));
    clock.Advance(299);
    // A pass begins with a look at the policy: two more uses, and one pass is over.
    const auto uses = m_task->GetPolicyUseCount();
    ASSERT_TRUE(WaitUntil([&] { return m_task->GetPolicyUseCount() >= uses + 2; }));
    EXPECT_EQ(Refreshes(), 1U);
    clock.Advance(1);
    EXPECT_TRUE(WaitUntil([&] { return Refreshes() == 2; }));
}

TEST_F(FileTask, CleansItsAlarmsBeforeItRefreshes) {
    FakeClock clock;
    const TestSupport::TemporaryFolder folder;
    const std::string file = folder.Write("secret", "x");
    m_agent.Full().Add(Process(1, "qemu-kvm", "qemu-kvm"));
    Run();
    ASSERT_TRUE(WaitUntil([&] { return Refreshes() == 1; }));
    m_task->GetInbox()->Send(std::make_shared<FileNotifyMessage>(1, FileNotifyMessage::OPEN, file));
    ASSERT_TRUE(WaitUntil([&] { return m_agent.Reporter().Count() == 1; }));
    Pass();
    m_log.Clear();
    clock.Advance(300);
    Pass();
    const std::string cleaned = "Clean file warned information in alarm cache";
    EXPECT_EQ(m_log.Count(kDebug, cleaned), 1U);
    EXPECT_EQ(Refreshes(), 1U);
    const Strings lines = m_log.Texts(kDebug);
    EXPECT_LT(std::find(lines.begin(), lines.end(), cleaned),
              std::find(lines.begin(), lines.end(),
                        "MonitorProcessList add process(pid:1,name:qemu-kvm)"));
}

TEST_F(FileTask, RefreshesAgain300SecondsAfterTheLastTime) {
    FakeClock clock;
    m_agent.Full().Add(Process(1, "qemu-kvm", "qemu-kvm"));
    Run();
    ASSERT_TRUE(WaitUntil([&] { return Refreshes() == 1; }));
    clock.Advance(300);
    Pass();
    ASSERT_EQ(Refreshes(), 2U);
    clock.Advance(299);
    Pass();
    Pass();
    EXPECT_EQ(Refreshes(), 2U);
    clock.Advance(1);
    Pass();
    EXPECT_EQ(Refreshes(), 3U);
}

TEST_F(FileTask, KeepsItsWatchesAtTheEndOfARunToTakeThemBack) {
    m_task->Init();
    m_notifier->Take();
    m_task->cancel();
    m_task->Run();
    EXPECT_EQ(m_task->m_watchedDirs, (std::set<std::string>{"/a", "/b"}));
    m_task->UnInit();
    EXPECT_EQ(m_notifier->Take(), (Strings{"-/a", "-/b"}));
}

TEST_F(FileTask, ForgetsItsProcessesAndAlarmsAtTheEndOfARun) {
    m_task->m_monitorPidMap[1] = "x";
    m_task->m_monitorCmdlineMap["x"] = "y";
    m_task->UpdateAlarmCache("a", 1, "b", "c");
    m_task->cancel();
    EXPECT_EQ(m_task->Run(), 0);
    EXPECT_TRUE(m_task->m_monitorPidMap.empty());
    EXPECT_TRUE(m_task->m_monitorCmdlineMap.empty());
    EXPECT_TRUE(m_task->m_fileWarnInfo.empty());
}

TEST(FileTaskSlots, AreThoseOfItsBaseAndTwoOfItsOwn) {
    using TestSupport::VirtualSlot;
    using Task = Engine::QemuFileDetectTask;
    const std::size_t last = VirtualSlot(&Framework::Task::HandleMsg);
    EXPECT_EQ(VirtualSlot(&Task::FileNotifyMessageAction), last + 1);
    EXPECT_EQ(VirtualSlot(&Task::SendAlarm), last + 2);
    EXPECT_EQ(VirtualSlot(&Task::Init), VirtualSlot(&Framework::Task::Init));
}

TEST(FileTaskAsReceiver, IsCalledThroughItsSecondBase) {
    const OpenFileTaskPtr task = new OpenFileTask;
    Engine::AbstractMessageReceiver* receiver = OpenFileTaskPtr(task).get();
    EXPECT_EQ(receiver->FileNotifyMessageAction(nullptr), -1);
}

}  // namespace
