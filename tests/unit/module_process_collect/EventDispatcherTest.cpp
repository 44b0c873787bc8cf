#include "EventDispatcher.h"

#include "support/CapturedLog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <vector>

namespace {

using Engine::ProcsMessage;
using Framework::Inbox;
using ProcessCollect::Counters;
using ProcessCollect::EventDispatcher;
using Messages = std::vector<std::shared_ptr<Framework::Message>>;

constexpr std::size_t kBacklog = 4;

class EventDispatcherTest : public testing::Test {
protected:
    void Exec(int pid) {
        ProcsMessage::procInfo info;
        info.m_pid = pid;
        info.m_name = "sh";
        m_dispatcher.Dispatch(ProcsMessage::EXEC, pid, &info);
    }
    static std::vector<int> Pids(Inbox& inbox) {
        Messages messages;
        inbox.Receive(messages, 100);
        std::vector<int> pids;
        for (const auto& message : messages) {
            pids.push_back(dynamic_cast<ProcsMessage&>(*message).GetProcPid());
        }
        return pids;
    }

    EventDispatcher m_dispatcher{kBacklog};
    std::shared_ptr<Inbox> m_small = std::make_shared<Inbox>("small", 2);
    std::shared_ptr<Inbox> m_large = std::make_shared<Inbox>("large", 64);
};

using Ints = std::vector<int>;

TEST_F(EventDispatcherTest, SendsEachSubscriberTheTypesItAskedFor) {
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_large);
    m_dispatcher.Dispatch(ProcsMessage::FORK, 1, nullptr);
    Exec(2);
    m_dispatcher.Flush();
    EXPECT_EQ(Pids(*m_large), Ints{2});
}

TEST_F(EventDispatcherTest, GivesEachSubscriberACopyOfItsOwn) {
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_small);
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_large);
    Exec(1);
    m_dispatcher.Flush();
    Messages messages;
    m_small->Receive(messages, 1);
    m_large->Receive(messages, 1);
    ASSERT_EQ(messages.size(), 2U);
    std::shared_ptr<ProcsMessage::procInfo> first;
    std::shared_ptr<ProcsMessage::procInfo> second;
    dynamic_cast<ProcsMessage&>(*messages[0]).GetProcInfo(first);
    dynamic_cast<ProcsMessage&>(*messages[1]).GetProcInfo(second);
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first, second);
    first->m_cmdline = "changed";
    EXPECT_EQ(second->m_cmdline, "");
}

TEST_F(EventDispatcherTest, KeepsABacklogForAFullInboxAndDeliversItInOrder) {
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_small);
    for (int pid = 1; pid <= 5; ++pid) {
        Exec(pid);
        m_dispatcher.Flush();
    }
    EXPECT_TRUE(m_dispatcher.HasBacklog());
    EXPECT_EQ(Pids(*m_small), (Ints{1, 2}));
    m_dispatcher.Flush();
    EXPECT_EQ(Pids(*m_small), (Ints{3, 4}));
    m_dispatcher.Flush();
    EXPECT_EQ(Pids(*m_small), Ints{5});
    EXPECT_FALSE(m_dispatcher.HasBacklog());
}

TEST_F(EventDispatcherTest, CountsAndLogsWhatExceedsTheBacklog) {
    const TestSupport::CapturedLog log;
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_small);
    for (int pid = 1; pid <= 20; ++pid) {
        Exec(pid);
        m_dispatcher.Flush();
    }
    const Counters counters = m_dispatcher.GetCounters();
    EXPECT_EQ(counters.m_seen, 20U);
    EXPECT_EQ(counters.m_delivered + counters.m_waiting, 6U);
    // One line of the collector and one of the inbox, however much is lost.
    EXPECT_EQ(log.Texts(Poco::Message::PRIO_ERROR).size(), 2U);
}

TEST_F(EventDispatcherTest, AnotherSubscriberIsNotHeldUpByAFullOne) {
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_small);
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_large);
    for (int pid = 1; pid <= 5; ++pid) {
        Exec(pid);
        m_dispatcher.Flush();
    }
    EXPECT_EQ(Pids(*m_large), (Ints{1, 2, 3, 4, 5}));
}

TEST_F(EventDispatcherTest, CountsTheLatencyOfEachDeliveryOfAnEventWhoseTimeIsKnown) {
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_small);
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_large);
    Exec(1);
    m_dispatcher.Dispatch(ProcsMessage::EXEC, 2, nullptr, std::chrono::steady_clock::now());
    m_dispatcher.Dispatch(ProcsMessage::EXIT, 2, nullptr, std::chrono::steady_clock::now());
    EXPECT_EQ(m_dispatcher.Latency().Count(), 0U);
    m_dispatcher.Flush();
    EXPECT_EQ(m_dispatcher.Latency().Count(), 2U) << "nobody wants exits, nobody knows when 1 was";
    m_dispatcher.Dispatch(ProcsMessage::EXEC, 3, nullptr, std::chrono::steady_clock::now());
    m_dispatcher.Unsubscribe(ProcsMessage::EXEC, m_large);
    EXPECT_EQ(m_dispatcher.Latency().Count(), 3U) << "an end hands over what waits";
}

TEST_F(EventDispatcherTest, RefusesUnknownTypes) {
    const TestSupport::CapturedLog log;
    EXPECT_FALSE(m_dispatcher.Subscribe(0, m_large));
    EXPECT_FALSE(m_dispatcher.Subscribe(4, m_large));
    EXPECT_EQ(m_dispatcher.SubscriberCount(), 0U);
}

TEST_F(EventDispatcherTest, SendsNothingAfterTheLastTypeIsTakenAway) {
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_large);
    m_dispatcher.Unsubscribe(ProcsMessage::EXEC, m_large);
    Exec(1);
    m_dispatcher.Flush();
    EXPECT_TRUE(m_large->Empty());
    EXPECT_EQ(m_dispatcher.SubscriberCount(), 0U);
}

TEST_F(EventDispatcherTest, DropsASubscriberWhoseTaskIsGone) {
    m_dispatcher.Subscribe(ProcsMessage::EXEC, m_large);
    m_large.reset();
    Exec(1);
    m_dispatcher.Flush();
    EXPECT_EQ(m_dispatcher.SubscriberCount(), 0U);
}

}  // namespace
