// Messages made of events, and what becomes of them when a subscriber is slow.

#include "EventRouter.h"

#include "NotifierHarness.h"

#include <sys/fanotify.h>

#include <array>

namespace {

using namespace FileNotifyTest;
using FileNotify::FanotifyEvent;
using Kinds = std::vector<int>;

constexpr int kPid = 4711;

class EventRouter : public NotifierTest {
protected:
    void SetUp() override {
        NotifierTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(m_marks.Open());
        ASSERT_EQ(m_changes.Open(), 0);
        m_tree.Add(m_folder.Path(), true, m_router.Subscriber(m_inbox));
        while (m_tree.Scan(10)) {
        }
    }

    void Route(std::uint64_t mask, const std::string& name = "key", int pid = kPid) {
        FanotifyEvent event;
        event.m_pid = pid;
        event.m_mask = mask;
        event.m_directory = m_folder.Path();
        event.m_name = name;
        m_router.Route(event);
    }
    Kinds Received() {
        m_router.Flush();
        std::vector<std::shared_ptr<FileNotifyMessage>> messages;
        Receive(m_inbox, messages);
        Kinds kinds;
        for (const auto& message : messages) {
            EXPECT_EQ(message->GetEventFilePath(), m_folder / "key");
            EXPECT_EQ(message->GetEventProcessId(), kPid);
            kinds.push_back(message->GetEventMask());
        }
        return kinds;
    }

    FileNotify::FileMarks m_marks;
    FileNotify::ChangeFeed m_changes;
    FileNotify::WatchTree m_tree{m_marks, m_changes};
    FileNotify::EventRouter m_router{m_tree, 2000};
};

TEST_F(EventRouter, MakesAMessageOfEachKindOfAccess) {
    Route(FAN_CLOSE_WRITE | FAN_MODIFY | FAN_ACCESS | FAN_OPEN);
    Route(FAN_CLOSE_NOWRITE);
    EXPECT_EQ(Received(), (Kinds{32, 1, 2, 8, 16}));
}

TEST_F(EventRouter, CountsEachKindOfAccessThatAnEventTellsOf) {
    Route(FAN_OPEN);
    Route(FAN_CLOSE_WRITE | FAN_MODIFY | FAN_OPEN);
    Route(FAN_ACCESS | FAN_CLOSE_NOWRITE);
    Route(FAN_OPEN, "key", ::getpid());
    EXPECT_EQ(m_router.GetCounters().m_accesses, (std::array<std::uint64_t, 5>{2, 1, 1, 1, 1}))
        << "what the agent itself does counts for nothing";
}

TEST_F(EventRouter, KeepsTheKindsTogetherForASubscriberThatIsBehindButForModify) {
    for (std::size_t i = 0; i < FileNotify::EventRouter::BEHIND; ++i) {
        Route(FAN_OPEN);
    }
    Route(FAN_OPEN | FAN_ACCESS | FAN_CLOSE_NOWRITE);
    Route(FAN_OPEN | FAN_MODIFY | FAN_CLOSE_WRITE);
    Kinds kinds = Received();
    kinds.erase(kinds.begin(), kinds.begin() + FileNotify::EventRouter::BEHIND);
    EXPECT_EQ(kinds, (Kinds{32 + 1 + 16, 2, 32 + 8}));
}

TEST_F(EventRouter, CountsWhatASubscriberLosesExactly) {
    for (int i = 0; i < 2500; ++i) {
        Route(FAN_OPEN);
    }
    const FileNotify::Counters counters = m_router.GetCounters();
    EXPECT_EQ(counters.m_lostBehind, 500U);
    EXPECT_EQ(counters.m_waiting, 2000U);
    EXPECT_EQ(m_inbox->Lost(), 500U);
    EXPECT_TRUE(counters.Balanced());
}

TEST_F(EventRouter, DropsEventsOutsideOfWhatIsAskedFor) {
    FanotifyEvent event;
    event.m_pid = kPid;
    event.m_mask = FAN_OPEN;
    event.m_directory = "/elsewhere";
    m_router.Route(event);
    event.m_directory = "no such key";
    event.m_hasKey = true;
    m_router.Route(event);
    EXPECT_TRUE(Received().empty());
    EXPECT_EQ(m_router.GetCounters().m_outside, 2U);
}

TEST_F(EventRouter, DropsEventsOfOtherKinds) {
    Route(FAN_ATTRIB);
    EXPECT_TRUE(Received().empty());
    EXPECT_TRUE(m_router.GetCounters().Balanced());
}

TEST_F(EventRouter, DropsItsOwnProcess) {
    Route(FAN_OPEN, "key", ::getpid());
    EXPECT_TRUE(Received().empty());
    EXPECT_EQ(m_router.GetCounters().m_own, 1U);
}

TEST_F(EventRouter, PassesOnEventsOfAProcessThatHasNoNumberHere) {
    Route(FAN_OPEN, "key", 0);
    m_router.Flush();
    EXPECT_EQ(m_inbox->Depth(), 1U);
}

TEST_F(EventRouter, HasOneSubscriberForAnInbox) {
    EXPECT_EQ(m_router.Subscriber(m_inbox), m_router.Subscriber(m_inbox));
}

TEST_F(EventRouter, CountsWhatIsLostWithASubscriber) {
    Route(FAN_OPEN);
    EXPECT_TRUE(m_router.DropAbandoned().empty());
    m_inbox.reset();
    EXPECT_EQ(m_router.DropAbandoned().size(), 1U);
    EXPECT_EQ(m_router.GetCounters().m_lostGone, 1U);
    EXPECT_TRUE(m_router.GetCounters().Balanced());
    EXPECT_FALSE(m_router.HasBacklog());
}

}  // namespace
