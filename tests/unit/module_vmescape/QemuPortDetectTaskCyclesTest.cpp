#include "OpenPortTask.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "support/BurnTime.h"
#include "support/CapturedLog.h"
#include "support/FakeClock.h"
#include "support/ReplacedSleep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <utility>

namespace {

using TestSupport::CapturedLog;
using TestSupport::FakeClock;
using TestSupport::Process;
using Strings = std::vector<std::string>;

constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

/// The run loop on the test's own thread, with sleeps that take no time.
class PortTaskCycles : public testing::Test {
protected:
    PortTaskCycles() {
        m_task->Use({R"({"virtmonitor":"qemu-kvm","portlist":[]})"});
        m_log.Clear();
    }
    ~PortTaskCycles() override { m_agent.Engine().UnRegisterTask("netproc_full_task"); }

    void Collect() { ASSERT_EQ(m_agent.Engine().RegisterTask(m_collector, true), 0); }

    /// Runs the task for one cycle more than there are steps: a step is taken at the end of each
    /// of the sleeps between them.
    void Run(std::vector<std::function<void()>> steps) {
        steps.emplace_back([this] { m_task->cancel(); });
        int pieces = 0;
        std::size_t step = 0;
        const TestSupport::ReplacedSleep instead([&](useconds_t microseconds) {
            EXPECT_EQ(microseconds, 100000U);
            if (++pieces == 100 && step < steps.size()) {
                pieces = 0;
                steps[step++]();
            }
        });
        m_task->Run();
    }
    std::size_t Cleaned() {
        return m_log.Count(kDebug, "Clean net warned information in alarm cache");
    }

    TestSupport::ScriptedAgent m_agent;
    FakeClock m_clock;
    CapturedLog m_log;
    Poco::AutoPtr<ScriptedNetTask> m_collector = new ScriptedNetTask;
    OpenPortTaskPtr m_task = new OpenPortTask;
};

TEST_F(PortTaskCycles, CleanItsAlarmsNotBeforeMoreThan299SecondsSinceItsStart) {
    m_task->UpdateAlarmCache("qemu-kvm", 1, "22", "");
    m_clock.Advance(1000);
    Run({[&] {
             EXPECT_EQ(Cleaned(), 0U);
             m_clock.Advance(299);
         },
         [&] {
             EXPECT_EQ(Cleaned(), 0U) << "the alarm is old enough, the last cleaning is not";
             m_clock.Advance(1);
         },
         [&] { EXPECT_EQ(Cleaned(), 1U); }});
}

TEST_F(PortTaskCycles, CleanItsAlarmsNotBeforeMoreThan299SecondsSinceTheLastCleaning) {
    const auto addOldAlarm = [&] {
        m_clock.Advance(-1000);
        m_task->UpdateAlarmCache("qemu-kvm", 1, "22", "");
        m_clock.Advance(1000);
    };
    Run({[&] { m_clock.Advance(300); },
         [&] {
             addOldAlarm();
             m_clock.Advance(299);
         },
         [&] {
             EXPECT_EQ(Cleaned(), 0U);
             m_clock.Advance(1);
         },
         [&] { EXPECT_EQ(Cleaned(), 1U); }});
}

TEST_F(PortTaskCycles, CleanItsAlarmsWithoutACollectorToo) {
    m_task->UpdateAlarmCache("qemu-kvm", 1, "22", "");
    Run({[&] { m_clock.Advance(300); }, [&] { EXPECT_EQ(Cleaned(), 1U); }});
}

TEST_F(PortTaskCycles, FindACollectorThatComesLaterAndMissOneThatGoes) {
    Run({[&] { Collect(); },
         [&] {
             EXPECT_EQ(m_collector->Reads(), 1);
             m_agent.Engine().UnRegisterTask("netproc_full_task");
         },
         [&] { EXPECT_EQ(m_collector->Reads(), 1); }, [&] { Collect(); },
         [&] { EXPECT_EQ(m_collector->Reads(), 2); }});
    EXPECT_TRUE(m_log.Texts(Poco::Message::PRIO_ERROR).empty());
}

TEST_F(PortTaskCycles, KeepToTheirShareOfTheProcessor) {
    SDK::InnerCpuCtrlUtils::SetShare(5);
    Run({[] {}, [] { TestSupport::BurnTime(std::chrono::milliseconds(200)); }, [] {}});
    SDK::InnerCpuCtrlUtils::SetShare(0);
    const std::vector<CapturedLog::Line> lines = m_log.Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const CapturedLog::Line& line) {
        return line.text.rfind("Task(qemu_port_detect_task) is ahead of its share(5%)", 0) == 0 &&
               line.file == "QemuPortDetectTask.cpp";
    }));
}

TEST_F(PortTaskCycles, BeginWithAnEmptyTable) {
    Collect();
    m_collector->Add(1, SocketAt(22, {Process(100, "qemu-kvm", "qemu-kvm")}));
    Run({[&] {
        m_collector->Clear();
        m_log.Clear();
    }});
    EXPECT_EQ(m_log.Texts(kDebug), Strings{"NetProcSet size=0"});
}

}  // namespace
