#include "Subscriber.h"

#include "process_collect/ProcsMessage.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using Engine::ProcsMessage;

class SubscriberTest : public testing::Test {
protected:
    ProcessCollect::Subscriber m_subscriber{std::make_shared<Framework::Inbox>("reader", 4), 8};
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

}  // namespace
