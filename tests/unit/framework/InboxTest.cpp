#include "framework/Inbox.h"

#include "support/CapturedLog.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using Framework::Inbox;
using Framework::Message;
using TestSupport::CapturedLog;

std::shared_ptr<Message> NewMessage() { return std::make_shared<Message>("test"); }

TEST(Inbox, GivesMessagesInTheOrderTheyWereSent) {
    Inbox inbox("reader", 4);
    const auto first = NewMessage();
    const auto second = NewMessage();
    inbox.Send(first);
    inbox.Send(second);
    std::vector<std::shared_ptr<Message>> got;
    EXPECT_EQ(inbox.Receive(got, 10), 2);
    EXPECT_EQ(got, (std::vector<std::shared_ptr<Message>>{first, second}));
}

TEST(Inbox, KeepsNoReferenceToAReceivedMessage) {
    Inbox inbox("reader", 4);
    inbox.Send(NewMessage());
    std::vector<std::shared_ptr<Message>> got;
    inbox.Receive(got, 1);
    EXPECT_EQ(got.front().use_count(), 1);
}

TEST(Inbox, CountsAMessageThatFindsItFullAsLost) {
    Inbox inbox("reader", 1);
    EXPECT_EQ(inbox.Send(NewMessage()), 1);
    EXPECT_EQ(inbox.Send(NewMessage()), 0);
    EXPECT_EQ(inbox.Accepted(), 1U);
    EXPECT_EQ(inbox.Lost(), 1U);
}

TEST(Inbox, LogsTheFirstLossOfABurstOnly) {
    const std::string first =
        "The inbox of task(reader) is full(1 messages). Messages are lost, 1 so far.";
    const std::string later =
        "The inbox of task(reader) is full(1 messages). Messages are lost, 3 so far.";
    CapturedLog log;
    Inbox inbox("reader", 1);
    inbox.Send(NewMessage());
    inbox.Send(NewMessage());
    inbox.Send(NewMessage());
    EXPECT_EQ(log.Texts(Poco::Message::PRIO_ERROR), std::vector<std::string>{first});
    std::vector<std::shared_ptr<Message>> got;
    inbox.Receive(got, 1);
    inbox.Send(NewMessage());
    inbox.Send(NewMessage());
    EXPECT_EQ(log.Texts(Poco::Message::PRIO_ERROR), (std::vector<std::string>{first, later}));
}

TEST(Inbox, LeavesTheRestOfABulkToTheSender) {
    Inbox inbox("reader", 4);
    inbox.Send(NewMessage());
    EXPECT_EQ(inbox.SendBulk({NewMessage(), NewMessage(), NewMessage(), NewMessage()}), 3);
    EXPECT_EQ(inbox.Lost(), 0U);
    EXPECT_EQ(inbox.Depth(), 4U);
}

TEST(Inbox, AFullBulkWakesNobody) {
    Inbox inbox("reader", 1);
    inbox.Send(NewMessage());
    EXPECT_EQ(inbox.SendBulk({NewMessage()}), 0);
    EXPECT_EQ(inbox.Accepted(), 1U);
}

}  // namespace
