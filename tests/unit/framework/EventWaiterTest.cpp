#include "framework/EventWaiter.h"

#include "support/CapturedLog.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <thread>

namespace {

using Framework::EventWaiter;
using Framework::Inbox;
using Framework::Message;

constexpr int kLongMs = 10000;

/// A descriptor that is readable until it is read.
class ReadyDescriptor {
public:
    ReadyDescriptor() : m_descriptor(::eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~ReadyDescriptor() { ::close(m_descriptor); }
    ReadyDescriptor(const ReadyDescriptor&) = delete;
    ReadyDescriptor& operator=(const ReadyDescriptor&) = delete;

    int Get() const { return m_descriptor; }
    void Read() const {
        std::uint64_t value = 0;
        EXPECT_EQ(::read(m_descriptor, &value, sizeof(value)), static_cast<ssize_t>(sizeof(value)));
    }

private:
    int m_descriptor;
};

class EventWaiterTest : public testing::Test {
protected:
    std::shared_ptr<Inbox> m_inbox = std::make_shared<Inbox>("reader", 4);
    EventWaiter m_waiter{m_inbox};
};

TEST_F(EventWaiterTest, ReturnsMinusOneAtOnceWhenMessagesWait) {
    m_inbox->Send(std::make_shared<Message>("test"));
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(kLongMs, 128), -1);
}

TEST_F(EventWaiterTest, RunsNoHandlerWhileMessagesWait) {
    const ReadyDescriptor descriptor;
    bool ran = false;
    m_waiter.AddEvent(descriptor.Get(), [&] { ran = true; });
    m_inbox->Send(std::make_shared<Message>("test"));
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(kLongMs, 128), -1);
    EXPECT_FALSE(ran);
}

TEST_F(EventWaiterTest, HandlesReadyEventsWhateverTheInboxHolds) {
    const ReadyDescriptor descriptor;
    m_waiter.AddEvent(descriptor.Get(), [&] { descriptor.Read(); });
    m_inbox->Send(std::make_shared<Message>("test"));
    EXPECT_EQ(m_waiter.HandleReadyEvents(128), 1);
}

TEST_F(EventWaiterTest, ReturnsZeroAfterTheTimeOut) {
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(1, 128), 0);
}

TEST_F(EventWaiterTest, AMessageEndsTheWait) {
    std::thread sender([this] { m_inbox->Send(std::make_shared<Message>("test")); });
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(kLongMs, 128), -1);
    sender.join();
}

TEST_F(EventWaiterTest, AWakeUpEndsTheNextWait) {
    m_waiter.Wakeup();
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(kLongMs, 128), 0);
}

TEST_F(EventWaiterTest, ReturnsTheNumberOfEventsHandled) {
    const ReadyDescriptor first;
    const ReadyDescriptor second;
    m_waiter.AddEvent(first.Get(), [&] { first.Read(); });
    m_waiter.AddEvent(second.Get(), [&] { second.Read(); });
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(kLongMs, 128), 2);
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(0, 128), 0);
}

TEST_F(EventWaiterTest, HandlesNoMoreEventsThanAskedFor) {
    const ReadyDescriptor first;
    const ReadyDescriptor second;
    m_waiter.AddEvent(first.Get(), [&] { first.Read(); });
    m_waiter.AddEvent(second.Get(), [&] { second.Read(); });
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(kLongMs, 1), 1);
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(kLongMs, 1), 1);
}

TEST_F(EventWaiterTest, AHandlerMayRemoveAnotherDescriptorOfTheSameRound) {
    const ReadyDescriptor first;
    const ReadyDescriptor second;
    m_waiter.AddEvent(first.Get(), [&] { m_waiter.RemoveEvent(second.Get()); });
    m_waiter.AddEvent(second.Get(), [&] { m_waiter.RemoveEvent(first.Get()); });
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(kLongMs, 128), 1);
}

TEST_F(EventWaiterTest, ADescriptorThatCannotBeWatchedIsRefusedAndLogged) {
    const TestSupport::CapturedLog log;
    EXPECT_EQ(m_waiter.AddEvent(-1, [] {}), -1);
    EXPECT_TRUE(log.Contains("Descriptor(-1) of task(reader) cannot be watched"));
}

TEST_F(EventWaiterTest, RemovingAnUnknownDescriptorIsIgnored) {
    m_waiter.RemoveEvent(12345);
    EXPECT_EQ(m_waiter.WaitAndHandleEvent(0, 128), 0);
}

}  // namespace
