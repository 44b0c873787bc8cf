#include "TestTasks.h"
#include "support/CapturedLog.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>

namespace {

using Framework::Engine;
using Framework::Message;
using TestSupport::WaitUntil;

class TaskRegistryTest : public testing::Test {
protected:
    EnginePtr m_engine = new Engine;
    CountingTaskPtr m_task = new CountingTask;
};

TEST_F(TaskRegistryTest, FindsRegisteredTasksOnly) {
    EXPECT_EQ(m_engine->FindTask("counting_task"), nullptr);
    m_engine->RegisterTask(m_task, true);
    EXPECT_EQ(m_engine->FindTask("counting_task"), m_task.get());
    EXPECT_EQ(m_engine->FindTask("COUNTING_TASK"), nullptr);
    m_engine->UnRegisterTask("counting_task");
    EXPECT_EQ(m_engine->FindTask("counting_task"), nullptr);
}

TEST_F(TaskRegistryTest, HoldsAReferenceWhileTheTaskIsRegistered) {
    m_engine->RegisterTask(m_task, true);
    EXPECT_EQ(m_task->referenceCount(), 2);
    m_engine->UnRegisterTask("counting_task");
    EXPECT_EQ(m_task->referenceCount(), 1);
}

TEST_F(TaskRegistryTest, RefusesASecondTaskOfTheSameName) {
    const TestSupport::CapturedLog log;
    CountingTaskPtr second = new CountingTask;
    ASSERT_EQ(m_engine->RegisterTask(m_task, true), 0);
    EXPECT_EQ(m_engine->RegisterTask(second, true), -1);
    EXPECT_EQ(second->m_inits, 0);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR,
                        "Task(counting_task) cannot be registered, the name is taken"),
              1U);
    m_engine->UnRegisterTask("counting_task");
}

TEST_F(TaskRegistryTest, RefusesANullTask) {
    const TestSupport::CapturedLog log;
    EXPECT_EQ(m_engine->RegisterTask(nullptr, false), -1);
    EXPECT_TRUE(log.Contains("A null task cannot be registered"));
}

TEST_F(TaskRegistryTest, UnregisteringAnUnknownTaskFails) {
    EXPECT_EQ(m_engine->UnRegisterTask("nobody"), -1);
}

TEST_F(TaskRegistryTest, ATaskCannotUnregisterItselfFromItsOwnThread) {
    const TestSupport::CapturedLog log;
    std::atomic<int> result{0};
    m_task->m_atRun = [&] { result = m_engine->UnRegisterTask("counting_task"); };
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    EXPECT_TRUE(WaitUntil([&] { return result == -2; }));
    EXPECT_TRUE(log.Contains("Task(counting_task) cannot unregister itself from its own thread"));
    EXPECT_EQ(m_engine->UnRegisterTask("counting_task"), 0);
}

TEST_F(TaskRegistryTest, ATaskMaySendMessagesFromItsInit) {
    CountingTaskPtr receiver = new CountingTask("receiver");
    ASSERT_EQ(m_engine->RegisterTask(receiver, true), 0);
    m_task->m_atInit = [&] {
        EXPECT_EQ(m_task->SendDirectMsg("receiver", new Message("test")), 0);
        EXPECT_EQ(m_task->SendDirectMsg("counting_task", new Message("test")), 0);
    };
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    EXPECT_TRUE(WaitUntil([&] { return m_task->m_handled == 1; }));
    m_engine->UnRegisterTask("counting_task");
    m_engine->UnRegisterTask("receiver");
}

/// Takes every message of one type for itself.
class InterceptingTask : public CountingTask {
public:
    int InterceptMsg(std::shared_ptr<Message>& message) override {
        return message->GetMsgType() == "mine" ? 1 : 0;
    }
};

TEST_F(TaskRegistryTest, AnInterceptedMessageIsDeliveredButNotQueued) {
    Poco::AutoPtr<InterceptingTask> task = new InterceptingTask;
    ASSERT_EQ(m_engine->RegisterTask(task, true), 0);
    EXPECT_EQ(m_engine->DeliverMessage("counting_task", std::make_shared<Message>("mine")), 0);
    EXPECT_EQ(task->GetInbox()->Depth(), 0U);
    EXPECT_EQ(m_engine->DeliverMessage("counting_task", std::make_shared<Message>("other")), 0);
    EXPECT_EQ(task->GetInbox()->Depth(), 1U);
    m_engine->UnRegisterTask("counting_task");
}

TEST_F(TaskRegistryTest, MessagesToATaskThatComesAndGoesNeverTouchAFreedOne) {
    std::atomic<bool> done{false};
    std::thread sender([&] {
        while (!done) {
            m_engine->DeliverMessage("brief", std::make_shared<Message>("test"));
        }
    });
    for (int i = 0; i < 200; ++i) {
        auto brief = std::make_unique<CountingTask>("brief");
        brief->duplicate();  // as modules do: the last release must not destroy it
        ASSERT_EQ(m_engine->RegisterTask(brief.get(), false), 0);
        ASSERT_EQ(m_engine->UnRegisterTask("brief"), 0);
    }
    done = true;
    sender.join();
}

TEST_F(TaskRegistryTest, StatusShowsEachTaskByName) {
    CountingTaskPtr other = new CountingTask("another_task", "feature");
    m_engine->RegisterTask(m_task, true);
    m_engine->RegisterTask(other, false);
    m_engine->DeliverMessage("counting_task", std::make_shared<Message>("test"));
    const auto status = m_engine->GetTaskStatus();
    ASSERT_EQ(status.size(), 2U);
    EXPECT_EQ(status[0].m_name, "another_task");
    EXPECT_EQ(status[0].m_feature, "feature");
    EXPECT_FALSE(status[0].m_passive);
    EXPECT_FALSE(status[0].m_ended);
    EXPECT_EQ(status[1].m_name, "counting_task");
    EXPECT_TRUE(status[1].m_passive);
    EXPECT_EQ(status[1].m_inboxDepth, 1U);
    EXPECT_EQ(status[1].m_inboxCapacity, 64U);
    EXPECT_EQ(status[1].m_messagesAccepted, 1U);
    m_engine->UnRegisterTask("another_task");
    m_engine->UnRegisterTask("counting_task");
}

TEST_F(TaskRegistryTest, AnEngineThatEndsFirstStopsTheTasksLeftRegistered) {
    const TestSupport::CapturedLog log;
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    m_engine = nullptr;
    EXPECT_EQ(m_task->m_unInits, 1);
    EXPECT_TRUE(log.Contains("Task(counting_task) is still registered while the engine ends"));
}

}  // namespace
