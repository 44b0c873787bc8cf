#include "Subscriber.h"

#include "process_collect/ProcsMessage.h"
#include "support/CapturedLog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <vector>

namespace {

using Engine::ProcsMessage;

using std::chrono::steady_clock;

class SubscriberTest : public testing::Test {
protected:
    /// Offers an event that happened so long ago.
    bool Offer(std::chrono::milliseconds ago) {
        return m_subscriber.Offer(std::make_shared<ProcsMessage>(ProcsMessage::EXEC, 1, nullptr),
                                  steady_clock::now() - ago);
    }
    void Empty() {
        std::vector<std::shared_ptr<Framework::Message>> messages;
        m_inbox->Receive(messages, 4);
    }

    std::shared_ptr<Framework::Inbox> m_inbox = std::make_shared<Framework::Inbox>("reader", 4);
    ProcessCollect::Subscriber m_subscriber{m_inbox, 8};
    SDK::LatencyHistogram m_latency;
};

TEST_F(SubscriberTest, WantsNothingAtFirst) {
    for (unsigned int type = 0; type < 6; ++type) {
        EXPECT_FALSE(m_subscriber.Wants(type)) << type;
    }
    EXPECT_FALSE(m_subscriber.WantsAny());
}

TEST_F(SubscriberTest, WantsTheTypesItWasGiven) {
    m_subscriber.SetWanted(ProcsMessage::EXEC, true);
    m_subscriber.SetWanted(ProcsMessage::EXIT, true);
    EXPECT_FALSE(m_subscriber.Wants(ProcsMessage::FORK));
    EXPECT_TRUE(m_subscriber.Wants(ProcsMessage::EXEC));
    m_subscriber.SetWanted(ProcsMessage::EXEC, false);
    EXPECT_FALSE(m_subscriber.Wants(ProcsMessage::EXEC));
    EXPECT_TRUE(m_subscriber.WantsAny());
}

TEST_F(SubscriberTest, NeverWantsATypeThatThereIsNot) {
    m_subscriber.SetWanted(4, true);
    m_subscriber.SetWanted(UINT32_MAX, true);
    EXPECT_FALSE(m_subscriber.Wants(4));
    EXPECT_FALSE(m_subscriber.Wants(UINT32_MAX));
    EXPECT_FALSE(m_subscriber.WantsAny());
}

TEST_F(SubscriberTest, TellsHowLongAgoWhatItHandsOverHappened) {
    using std::chrono::milliseconds;
    ASSERT_TRUE(Offer(milliseconds(0)));
    ASSERT_TRUE(Offer(std::chrono::hours(1)));
    EXPECT_EQ(m_subscriber.Flush(m_latency), 2U);
    EXPECT_EQ(m_latency.Count(), 2U);
    EXPECT_EQ(m_latency.GetCounts().back(), 1U) << "the hour";
    EXPECT_GE(m_latency.SumS(), 3600);
    EXPECT_LT(m_latency.SumS(), 3660);
}

TEST_F(SubscriberTest, CountsNothingUntilTheInboxTakesItAndThenItsWholeWait) {
    const TestSupport::CapturedLog log;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(Offer(std::chrono::milliseconds(0)));
    }
    ASSERT_TRUE(Offer(std::chrono::hours(1)));
    EXPECT_EQ(m_subscriber.Flush(m_latency), 4U);
    EXPECT_EQ(m_latency.Count(), 4U);
    EXPECT_EQ(m_subscriber.Flush(m_latency), 0U);
    EXPECT_EQ(m_latency.Count(), 4U);
    Empty();
    EXPECT_EQ(m_subscriber.Flush(m_latency), 1U);
    EXPECT_EQ(m_latency.GetCounts().back(), 1U) << "its own time, not that of one before it";
}

TEST_F(SubscriberTest, LeavesOutWhatIsLostAndWhatHasNoTime) {
    const TestSupport::CapturedLog log;
    const auto untimed = std::make_shared<ProcsMessage>(ProcsMessage::EXEC, 1, nullptr);
    ASSERT_TRUE(m_subscriber.Offer(untimed, {}));
    for (int i = 0; i < 7; ++i) {
        ASSERT_TRUE(Offer(std::chrono::milliseconds(0)));
    }
    ASSERT_FALSE(Offer(std::chrono::hours(1)));
    std::size_t moved = m_subscriber.Flush(m_latency);
    Empty();
    moved += m_subscriber.Flush(m_latency);
    EXPECT_EQ(moved, 8U);
    EXPECT_EQ(m_latency.Count(), 7U);
    Empty();
    ASSERT_TRUE(Offer(std::chrono::milliseconds(0)));
    EXPECT_EQ(m_subscriber.Flush(m_latency), 1U);
    EXPECT_EQ(m_latency.Count(), 8U);
    EXPECT_EQ(m_latency.GetCounts().back(), 0U) << "nor does the next one get the time of the lost";
}

}  // namespace
