#include "RealTask.h"

#include "ProcessCollector.h"
#include "ScriptedSource.h"
#include "framework/Engine.h"
#include "process_collect/ProcsRegistMessage.h"
#include "support/CapturedLog.h"

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include <memory>

namespace {

using namespace ProcessCollect;
using Engine::ProcsMessage;
using Engine::ProcsRegistMessage;
using Engine::ProcsUnRegistMessage;
using TestSupport::CapturedLog;

/// Whoever subscribes.
class Asking : public Framework::Task {
public:
    Asking() : Framework::Task("asking", "", Framework::TaskCondition::RESIDENT_TASK, 64) {}
    ~Asking() override = default;
};

class RealTaskTest : public testing::Test {
protected:
    RealTaskTest() {
        auto source = std::make_unique<ScriptedSource>();
        m_source = source.get();
        m_collector =
            std::make_shared<ProcessCollector>(std::move(source), ProcessCollector::Limits());
        m_collector->Start();
        m_task = new RealTask(m_collector);
        m_log.Clear();
    }

    template <typename MessageT>
    int Send(unsigned int type) {
        std::shared_ptr<Framework::Message> message = std::make_shared<MessageT>(type, m_asking);
        return m_task->InterceptMsg(message);
    }

    CapturedLog m_log;
    Poco::AutoPtr<Framework::Engine> m_engine = new Framework::Engine;
    Poco::AutoPtr<Asking> m_asking = new Asking;
    ScriptedSource* m_source = nullptr;
    std::shared_ptr<ProcessCollector> m_collector;
    Poco::AutoPtr<RealTask> m_task;
};

TEST_F(RealTaskTest, TakesASubscriptionBeforeTheCallThatSendsItReturns) {
    EXPECT_NE(Send<ProcsRegistMessage>(ProcsMessage::EXEC), 0) << "it is not queued";
    m_source->Add(ProcsMessage::EXEC, 1 << 23, 1, 5);
    m_collector->Pass();
    EXPECT_EQ(m_asking->GetInbox()->Depth(), 1U);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_INFORMATION,
                          "Task(asking) gets process events of type(2)."),
              1U);
}

TEST_F(RealTaskTest, EndsASubscription) {
    Send<ProcsRegistMessage>(ProcsMessage::EXEC);
    Send<ProcsUnRegistMessage>(ProcsMessage::EXEC);
    m_source->Add(ProcsMessage::EXEC, 1 << 23, 1, 5);
    m_collector->Pass();
    EXPECT_EQ(m_asking->GetInbox()->Depth(), 0U);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_INFORMATION,
                          "Task(asking) no longer gets process events of type(2)."),
              1U);
}

TEST_F(RealTaskTest, RefusesATypeThatThereIsNot) {
    EXPECT_NE(Send<ProcsRegistMessage>(9), 0);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_ERROR,
                          "Task(asking) asks for process events of type(9), which is unknown."),
              1U);
}

TEST_F(RealTaskTest, QueuesOtherMessagesAndSaysThatItDoesNotKnowThem) {
    std::shared_ptr<Framework::Message> message = std::make_shared<Framework::Message>("other");
    EXPECT_EQ(m_task->InterceptMsg(message), 0);
    EXPECT_EQ(m_task->HandleMsg(message.get()), 0);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_WARNING,
                          "Task(procs_real_task) does not know messages of type(other)."),
              1U);
}

TEST_F(RealTaskTest, RunsUntilItIsStopped) {
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    EXPECT_EQ(m_engine->FindTask("procs_real_task"), m_task.get());
    EXPECT_EQ(m_engine->UnRegisterTask("procs_real_task"), 0);
}

}  // namespace
