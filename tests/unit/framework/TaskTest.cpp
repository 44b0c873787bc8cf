#include "framework/Task.h"

#include "TestTasks.h"
#include "support/CapturedLog.h"
#include "support/VirtualSlot.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace {

using Framework::Engine;
using Framework::Message;
using TestSupport::WaitUntil;

class TaskTest : public testing::Test {
protected:
    EnginePtr m_engine = new Engine;
    CountingTaskPtr m_task = new CountingTask;
};

TEST_F(TaskTest, RunsOnAThreadOfItsOwnBetweenInitAndUnInit) {
    std::thread::id runner;
    m_task->m_atRun = [&] { runner = std::this_thread::get_id(); };
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    ASSERT_TRUE(WaitUntil([&] { return m_task->m_runs == 1; }));
    EXPECT_EQ(m_task->m_inits, 1);
    EXPECT_EQ(m_task->m_unInits, 0);
    EXPECT_EQ(m_engine->UnRegisterTask("counting_task"), 0);
    EXPECT_EQ(m_task->m_unInits, 1);
    EXPECT_NE(runner, std::this_thread::get_id());
}

TEST_F(TaskTest, APassiveTaskIsInitialisedButNeverRuns) {
    ASSERT_EQ(m_engine->RegisterTask(m_task, true), 0);
    EXPECT_EQ(m_task->m_inits, 1);
    EXPECT_EQ(m_engine->UnRegisterTask("counting_task"), 0);
    EXPECT_EQ(m_task->m_runs, 0);
    EXPECT_EQ(m_task->m_unInits, 1);
}

TEST_F(TaskTest, AThousandRegistrationsOfOneObjectNeverHang) {
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
        ASSERT_EQ(m_engine->UnRegisterTask("counting_task"), 0);
    }
    EXPECT_EQ(m_task->m_inits, 1000);
    EXPECT_EQ(m_task->m_unInits, 1000);
    EXPECT_EQ(m_task->referenceCount(), 1);
}

TEST_F(TaskTest, AStopAfterEachPointOfTheStartEndsTheTask) {
    for (int round = 0; round < 300; ++round) {
        std::atomic<bool> reached{false};
        m_task->m_atRun = [&] { reached = true; };
        ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
        // The delay before the stop grows from nothing to "Run was reached".
        for (int spin = 0; spin < round * 20 && !reached; ++spin) {
            SDK::PauseProcessor();
        }
        ASSERT_EQ(m_engine->UnRegisterTask("counting_task"), 0);
    }
    EXPECT_EQ(m_task->m_unInits, 300);
}

TEST_F(TaskTest, AStateSetToCancellingFromOutsideEndsRun) {
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    ASSERT_TRUE(WaitUntil([&] { return m_task->m_runs == 1; }));
    m_task->cancel();
    m_task->GetEventWaiter().Wakeup();
    EXPECT_TRUE(WaitUntil([&] { return m_task->state() == Poco::Task::TASK_FINISHED; }));
    EXPECT_EQ(m_engine->UnRegisterTask("counting_task"), 0);
}

TEST_F(TaskTest, AnInitThatFailsRefusesTheRegistration) {
    const TestSupport::CapturedLog log;
    m_task->m_initResult = 7;
    EXPECT_EQ(m_engine->RegisterTask(m_task, false), 7);
    EXPECT_EQ(m_engine->FindTask("counting_task"), nullptr);
    EXPECT_EQ(m_task->referenceCount(), 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR,
                        "Task(counting_task) refused to start, its Init returned 7"),
              1U);
}

/// Has nothing more to do at once.
class BriefTask : public Framework::Task {
public:
    BriefTask() : Framework::Task("brief", "", Framework::TaskCondition::RESIDENT_TASK, 1) {}
    ~BriefTask() override = default;
};

TEST_F(TaskTest, ThatEndedByItselfIsShownAsEnded) {
    Poco::AutoPtr<BriefTask> brief = new BriefTask;
    ASSERT_EQ(m_engine->RegisterTask(brief.get(), false), 0);
    EXPECT_TRUE(WaitUntil([&] { return m_engine->GetTaskStatus().front().m_ended; }));
    EXPECT_EQ(m_engine->UnRegisterTask("brief"), 0);
}

TEST_F(TaskTest, ThatAnExceptionEndedIsStartedAgain) {
    const TestSupport::CapturedLog log;
    std::atomic<int> runs{0};
    m_task->m_atRun = [&] {
        if (++runs < 3) {
            throw std::runtime_error("on purpose");
        }
    };
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    EXPECT_TRUE(WaitUntil([&] { return runs == 3; }));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR,
                        "Task(counting_task) ended by an exception: on purpose"),
              2U);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_WARNING, "Task(counting_task) is started again"), 2U);
    EXPECT_FALSE(m_engine->GetTaskStatus().front().m_ended);
    EXPECT_EQ(m_engine->UnRegisterTask("counting_task"), 0);
}

TEST_F(TaskTest, ThatFailsAgainAndAgainIsStoppedAllTheSame) {
    std::atomic<int> runs{0};
    m_task->m_atRun = [&] {
        ++runs;
        throw Poco::RuntimeException("on purpose");
    };
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    EXPECT_TRUE(WaitUntil([&] { return runs >= 2; }));
    EXPECT_EQ(m_engine->UnRegisterTask("counting_task"), 0);
    const int before = runs;
    EXPECT_EQ(m_engine->FindTask("counting_task"), nullptr);
    EXPECT_EQ(runs, before);
}

TEST_F(TaskTest, ReleasesTheMessagesStillWaitingWhenItStops) {
    const auto message = std::make_shared<Message>("test");
    ASSERT_EQ(m_engine->RegisterTask(m_task, true), 0);
    ASSERT_EQ(m_engine->DeliverMessage("counting_task", message), 0);
    EXPECT_EQ(message.use_count(), 2);
    m_engine->UnRegisterTask("counting_task");
    EXPECT_EQ(message.use_count(), 1);
}

TEST_F(TaskTest, SendsToANamedTask) {
    CountingTaskPtr sender = new CountingTask("sender");
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    EXPECT_EQ(sender->SendDirectMsg("counting_task", new Message("test")), 0);
    EXPECT_TRUE(WaitUntil([&] { return m_task->m_handled == 1; }));
    m_engine->UnRegisterTask("counting_task");
}

/// A message that tells when it is freed.
class WatchedMessage : public Message {
public:
    explicit WatchedMessage(int& freed) : Message("test"), m_freed(freed) {}
    ~WatchedMessage() override { ++m_freed; }

private:
    int& m_freed;
};

TEST_F(TaskTest, OwnsAMessageEvenWhenNobodyReceivesIt) {
    int freed = 0;
    EXPECT_EQ(m_task->SendDirectMsg("nobody", new WatchedMessage(freed)), -1);
    EXPECT_EQ(freed, 1);
}

TEST_F(TaskTest, CountsAFullInboxAgainstTheReceiver) {
    int freed = 0;
    ASSERT_EQ(m_engine->RegisterTask(m_task, true), 0);
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(m_task->SendDirectMsg("counting_task", new WatchedMessage(freed)), 0);
    }
    EXPECT_EQ(m_task->SendDirectMsg("counting_task", new WatchedMessage(freed)), -2);
    EXPECT_EQ(freed, 1);
    EXPECT_EQ(m_task->GetInbox()->Lost(), 1U);
    m_engine->UnRegisterTask("counting_task");
    EXPECT_EQ(freed, 65);
}

TEST_F(TaskTest, CountsEachUseOfThePolicyAndStampsTheLast) {
    EXPECT_EQ(m_task->GetPolicyUseCount(), 0U);
    EXPECT_EQ(m_task->GetPolicyLastUse(), 0);
    EXPECT_EQ(m_task->GetFeaturePolicy(), nullptr);
    EXPECT_EQ(m_task->GetFeaturePolicy(), nullptr);
    EXPECT_EQ(m_task->GetPolicyUseCount(), 2U);
    EXPECT_GT(m_task->GetPolicyLastUse(), 0);
}

TEST_F(TaskTest, APolicyLivesUntilItsLastUserLetsGo) {
    std::atomic<int> freed{0};
    auto policy = std::make_shared<OneTaskPolicy>("feature", "counting_task");
    policy->m_freed = &freed;
    m_task->AttachFeaturePolicy(std::move(policy));
    auto held = m_task->GetFeaturePolicy();
    m_task->AttachFeaturePolicy(nullptr);
    EXPECT_EQ(freed, 0);
    held.reset();
    EXPECT_EQ(freed, 1);
}

TEST(TaskSlots, StandInTheOrderThatModulesWereBuiltAgainst) {
    using Framework::Task;
    // Two destructors first, then Poco's run, cancel, runTask and postNotification.
    EXPECT_EQ(TestSupport::VirtualSlot(&Poco::Task::run), 2U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Task::cancel), 3U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Task::runTask), 4U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Task::Init), 6U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Task::UnInit), 7U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Task::Run), 8U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Task::EnqueueMsg), 9U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Task::InterceptMsg), 10U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Task::HandleMsg), 11U);
}

TEST(PolicySlots, StandInTheOrderThatModulesWereBuiltAgainst) {
    using Framework::Policy;
    EXPECT_EQ(TestSupport::VirtualSlot(&Policy::Parse), 2U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Policy::Dispatch), 3U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Policy::PolicyChanged), 4U);
}

}  // namespace
