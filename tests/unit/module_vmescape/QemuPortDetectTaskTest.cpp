#include "OpenPortTask.h"
#include "support/CapturedLog.h"
#include "support/FakeClock.h"
#include "support/VirtualSlot.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using TestSupport::CapturedLog;
using TestSupport::FakeClock;
using TestSupport::Process;
using TestSupport::WaitUntil;
using Strings = std::vector<std::string>;

constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

class PortTask : public testing::Test {
protected:
    PortTask() {
        m_task->Use({R"({"virtmonitor":"qemu-kvm","portlist":[]})"});
        m_log.Clear();
    }
    ~PortTask() override {
        Stop();
        m_agent.Engine().UnRegisterTask("netproc_full_task");
    }

    void Collect() { ASSERT_EQ(m_agent.Engine().RegisterTask(m_collector, true), 0); }
    void Run() { ASSERT_EQ(m_agent.Engine().RegisterTask(m_task, false), 0); }
    void Stop() { m_agent.Engine().UnRegisterTask("qemu_port_detect_task"); }

    TestSupport::ScriptedAgent m_agent;
    CapturedLog m_log;
    Poco::AutoPtr<ScriptedNetTask> m_collector = new ScriptedNetTask;
    OpenPortTaskPtr m_task = new OpenPortTask;
};

TEST_F(PortTask, KnowsItsNameFeatureTypeAndCapacity) {
    EXPECT_EQ(m_task->name(), "qemu_port_detect_task");
    EXPECT_EQ(m_task->GetFeatureName(), "qemu_port_detect_feature");
    EXPECT_EQ(static_cast<int>(m_task->GetTaskType()), 4);
    EXPECT_EQ(m_task->GetInbox()->Capacity(), 1024U);
}

TEST_F(PortTask, ForgetsItsAlarmsWhenItStarts) {
    m_task->UpdateAlarmCache("qemu-kvm", 1, "22", "");
    EXPECT_EQ(m_task->Init(), 0);
    EXPECT_TRUE(m_task->m_netWarnInfo.empty());
    EXPECT_EQ(m_log.Texts(kInformation),
              (Strings{"QemuPortDetectTask init start", "QemuPortDetectTask init finish"}));
    EXPECT_TRUE(m_agent.Real().Requests().empty());
}

TEST_F(PortTask, ForgetsItsAlarmsWhenItIsTakenDown) {
    m_task->UpdateAlarmCache("qemu-kvm", 1, "22", "");
    EXPECT_EQ(m_task->UnInit(), 0);
    EXPECT_TRUE(m_task->m_netWarnInfo.empty());
    EXPECT_EQ(m_log.Texts(kInformation),
              (Strings{"QemuPortDetectTask uninit start", "QemuPortDetectTask uninit finish"}));
}

TEST_F(PortTask, ForgetsItsMessagesWhenItIsTakenDown) {
    auto message = std::make_shared<Framework::Message>("other");
    m_task->EnqueueMsg(message);
    ASSERT_EQ(m_task->GetInbox()->Depth(), 1U);
    m_task->UnInit();
    EXPECT_EQ(m_task->GetInbox()->Depth(), 0U);
}

TEST_F(PortTask, LinesCarryTheirPlaceInTheSource) {
    m_task->Init();
    m_task->UnInit();
    EXPECT_EQ(m_log.Lines().size(), 4U);
    for (const CapturedLog::Line& line : m_log.Lines()) {
        EXPECT_EQ(line.file, "QemuPortDetectTask.cpp") << line.text;
        EXPECT_GT(line.line, 0);
    }
}

TEST_F(PortTask, ExaminesTheTableOfTheCollectorAtOnce) {
    Collect();
    m_collector->Add(1, SocketAt(22, {Process(100, "qemu-kvm", "qemu-kvm -name vm-01")}));
    Run();
    EXPECT_TRUE(WaitUntil([&] { return m_agent.Reporter().Count() == 1; }));
    EXPECT_EQ(m_collector->Reads(), 1);
}

TEST_F(PortTask, ExaminesNothingAndSaysNothingWithoutACollector) {
    m_log.Clear();
    Run();
    EXPECT_TRUE(WaitUntil([&] { return m_log.Contains("QemuPortDetectTask init finish"); }));
    Stop();
    EXPECT_TRUE(m_log.Texts(Poco::Message::PRIO_ERROR).empty());
    EXPECT_FALSE(m_log.Contains("NetProcSet"));
}

TEST_F(PortTask, NoticesAStopInItsSleep) {
    Collect();
    Run();
    ASSERT_TRUE(WaitUntil([&] { return m_collector->Reads() == 1; }));
    const auto before = std::chrono::steady_clock::now();
    Stop();
    // A tenth of a second is the piece of its sleep; the rest is for a busy machine.
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
}

TEST_F(PortTask, ExaminesNothingWhenItWasStoppedBefore) {
    Collect();
    m_task->cancel();
    EXPECT_EQ(m_task->Run(), 0);
    EXPECT_EQ(m_collector->Reads(), 0);
}

TEST_F(PortTask, ForgetsItsAlarmsAtTheEndOfARun) {
    m_task->UpdateAlarmCache("qemu-kvm", 1, "22", "");
    m_task->cancel();
    m_task->Run();
    EXPECT_TRUE(m_task->m_netWarnInfo.empty());
}

TEST_F(PortTask, ExaminesAgainAfterTenSecondsAndRepeatsNoAlarm) {
    Collect();
    m_collector->Add(1, SocketAt(22, {Process(100, "qemu-kvm", "qemu-kvm -name vm-01")}));
    const auto start = std::chrono::steady_clock::now();
    Run();
    ASSERT_TRUE(
        WaitUntil([&] { return m_log.Contains("Repeat Alarm: "); }, std::chrono::seconds(30)));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(9900));
    EXPECT_EQ(m_agent.Reporter().Count(), 1U);
}

TEST_F(PortTask, CleansItsAlarmsOnTheFirstCycleAfterMoreThan299Seconds) {
    FakeClock clock;
    Collect();
    m_collector->Add(1, SocketAt(22, {Process(100, "qemu-kvm", "qemu-kvm")}));
    Run();
    // Its age is taken after it is sent: the clock must not move between the two.
    ASSERT_TRUE(WaitUntil([&] { return m_log.Contains("Update Alarm Cache Info{"); }));
    clock.Advance(300);
    EXPECT_TRUE(WaitUntil(
        [&] { return m_log.Count(kDebug, "Clean net warned information in alarm cache") == 1; },
        std::chrono::seconds(30)));
}

TEST(PortTaskSlots, AreThoseOfItsBaseAndOneOfItsOwn) {
    using TestSupport::VirtualSlot;
    using Task = Engine::QemuPortDetectTask;
    EXPECT_EQ(VirtualSlot(&Task::SendAlarm), VirtualSlot(&Framework::Task::HandleMsg) + 1);
    EXPECT_EQ(VirtualSlot(&Task::Init), VirtualSlot(&Framework::Task::Init));
    EXPECT_EQ(VirtualSlot(&Task::UnInit), VirtualSlot(&Task::Init) + 1);
    EXPECT_EQ(VirtualSlot(&Task::Run), VirtualSlot(&Task::Init) + 2);
}

}  // namespace
