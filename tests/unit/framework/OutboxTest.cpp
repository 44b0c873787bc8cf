#include "framework/Outbox.h"

#include "support/CapturedLog.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using Framework::Inbox;
using Framework::Message;
using Framework::Outbox;

class OutboxTest : public testing::Test {
protected:
    static std::shared_ptr<Message> NewMessage() { return std::make_shared<Message>("test"); }

    /// Takes messages out of the inbox, as its task would.
    std::vector<std::shared_ptr<Message>> Take(int max) {
        std::vector<std::shared_ptr<Message>> messages;
        m_inbox->Receive(messages, max);
        return messages;
    }
    void Offer(int messages) {
        for (int i = 0; i < messages; ++i) {
            m_outbox.Offer(NewMessage());
        }
    }

    std::shared_ptr<Inbox> m_inbox = std::make_shared<Inbox>("reader", 4);
    Outbox m_outbox{m_inbox, 6, "test messages"};
};

TEST_F(OutboxTest, PassesMessagesOnInTheirOrder) {
    const auto first = NewMessage();
    const auto second = NewMessage();
    m_outbox.Offer(first);
    m_outbox.Offer(second);
    EXPECT_EQ(m_inbox->Depth(), 0U);
    EXPECT_EQ(m_outbox.Flush(), 2U);
    EXPECT_EQ(Take(10), (std::vector<std::shared_ptr<Message>>{first, second}));
}

TEST_F(OutboxTest, KeepsWhatTheInboxHasNoRoomForUntilThereIsSome) {
    Offer(6);
    EXPECT_EQ(m_outbox.Flush(), 4U);
    EXPECT_EQ(m_outbox.Waiting(), 2U);
    EXPECT_EQ(m_outbox.Flush(), 0U);
    EXPECT_EQ(Take(1).size(), 1U);
    EXPECT_EQ(m_outbox.Flush(), 1U);
    EXPECT_EQ(m_outbox.Waiting(), 1U);
    EXPECT_EQ(m_inbox->Lost(), 0U);
}

TEST_F(OutboxTest, LosesWhatIsBeyondItsLimitCountedAndLoggedOnce) {
    const TestSupport::CapturedLog log;
    Offer(6);
    EXPECT_FALSE(m_outbox.Offer(NewMessage()));
    EXPECT_FALSE(m_outbox.Offer(NewMessage()));
    EXPECT_EQ(m_inbox->Lost(), 2U);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR,
                        "Task(reader) is 6 test messages behind, the limit. Further ones are "
                        "lost."),
              1U);
}

TEST_F(OutboxTest, SaysSoAgainWhenTheTaskFallsBehindAgain) {
    const TestSupport::CapturedLog log;
    for (int i = 0; i < 2; ++i) {
        Offer(7);
        while (m_outbox.Flush() > 0) {
            Take(4);
        }
        EXPECT_EQ(m_outbox.Waiting(), 0U);
    }
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR,
                        "Task(reader) is 6 test messages behind, the limit. Further ones are "
                        "lost."),
              2U);
}

TEST_F(OutboxTest, MovesMoreThanOneBulk) {
    const auto inbox = std::make_shared<Inbox>("reader", 1024);
    Outbox outbox(inbox, 1000, "test messages");
    for (int i = 0; i < 300; ++i) {
        outbox.Offer(NewMessage());
    }
    EXPECT_EQ(outbox.Flush(), 300U);
    EXPECT_EQ(inbox->Depth(), 300U);
}

TEST_F(OutboxTest, IsAbandonedWhenNobodyElseHoldsTheInbox) {
    EXPECT_FALSE(m_outbox.Abandoned());
    m_inbox.reset();
    EXPECT_TRUE(m_outbox.Abandoned());
}

}  // namespace
