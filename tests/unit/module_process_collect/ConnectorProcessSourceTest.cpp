#include "ConnectorProcessSource.h"

#include "ConnectorDatagram.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using namespace ProcessCollect;
using Engine::ProcsMessage;

// No process has it: pid_max is at most 2^22.
constexpr int kNobody = 1 << 23;

class ConnectorSource : public testing::Test {
protected:
    std::size_t Handle(const std::vector<char>& datagram) {
        return m_source.HandleDatagram(datagram.data(), datagram.size(),
                                       [this](const ProcessEvent& event) {
                                           m_events.push_back(event);
                                           m_arguments.emplace_back(event.m_arguments);
                                       });
    }

    std::uint64_t Count(const std::string& reason) const {
        for (const LossCount& loss : m_source.Losses()) {
            if (loss.m_reason == reason) {
                return loss.m_count;
            }
        }
        ADD_FAILURE() << "no such reason: " << reason;
        return 0;
    }

    ConnectorProcessSource m_source;
    std::vector<ProcessEvent> m_events;
    std::vector<std::string> m_arguments;
};

TEST_F(ConnectorSource, NewThreadIsNoEvent) {
    EXPECT_EQ(Handle(ForkDatagram(0, 0, 1, 20, 10)), 0U);
}

TEST_F(ConnectorSource, ForkNamesTheParent) {
    EXPECT_EQ(Handle(ForkDatagram(0, 0, 7, kNobody, kNobody)), 1U);
    EXPECT_EQ(m_events.at(0).m_type, ProcsMessage::FORK);
    EXPECT_EQ(m_events.at(0).m_pid, kNobody);
    EXPECT_EQ(m_events.at(0).m_parentPid, 7);
}

TEST_F(ConnectorSource, ExecIsCompletedFromProc) {
    EXPECT_EQ(Handle(ExecDatagram(0, 0, ::getpid())), 1U);
    EXPECT_EQ(m_events.at(0).m_parentPid, ::getppid());
    EXPECT_FALSE(m_events.at(0).m_incomplete);
    EXPECT_FALSE(m_arguments.at(0).empty());
    EXPECT_EQ(Count("process ended before it could be asked"), 0U);
}

TEST_F(ConnectorSource, ExecOfAProcessThatIsGoneIsIncompleteAndCounted) {
    EXPECT_EQ(Handle(ExecDatagram(0, 0, kNobody)), 1U);
    EXPECT_TRUE(m_events.at(0).m_incomplete);
    EXPECT_EQ(Count("process ended before it could be asked"), 1U);
    EXPECT_EQ(m_source.LostEvents(), 0U);
}

TEST_F(ConnectorSource, EndOfAThreadIsNoEvent) {
    EXPECT_EQ(Handle(ExitDatagram(0, 0, 20, 10)), 0U);
}

TEST_F(ConnectorSource, EndOfTheFirstThreadWaitsForTheOthers) {
    // This process lives, so its leader cannot have been the last thread.
    EXPECT_EQ(Handle(ExitDatagram(0, 0, ::getpid(), ::getpid())), 0U);
    EXPECT_EQ(Handle(ExitDatagram(0, 1, ::getpid() + 1, ::getpid())), 0U);
    EXPECT_EQ(Handle(ExitDatagram(0, 2, kNobody, kNobody)), 1U);
    EXPECT_EQ(m_events.at(0).m_type, ProcsMessage::EXIT);
}

TEST_F(ConnectorSource, MissingNumbersAreLostEventsForEachProcessor) {
    Handle(ExitDatagram(0, 10, 20, 10));
    Handle(ExitDatagram(1, 500, 20, 10));
    Handle(ExitDatagram(0, 11, 20, 10));
    EXPECT_EQ(m_source.LostEvents(), 0U);
    Handle(ExitDatagram(0, 15, 20, 10));
    EXPECT_EQ(Count("message missing"), 3U);
    Handle(ExitDatagram(1, 501, 20, 10));
    EXPECT_EQ(m_source.LostEvents(), 3U);
}

TEST_F(ConnectorSource, NumbersMayWrap) {
    Handle(ExitDatagram(0, 0xffffffffU, 20, 10));
    Handle(ExitDatagram(0, 0, 20, 10));
    EXPECT_EQ(m_source.LostEvents(), 0U);
}

TEST_F(ConnectorSource, MalformedDatagramIsCounted) {
    auto bytes = ExitDatagram(0, 0, 20, 10);
    bytes.resize(bytes.size() - 1);
    EXPECT_EQ(Handle(bytes), 0U);
    EXPECT_EQ(Count("malformed"), 1U);
    EXPECT_EQ(m_source.LostEvents(), 1U);
}

TEST_F(ConnectorSource, TwoMessagesInOneDatagramAreBothRead) {
    auto bytes = ExitDatagram(0, 0, kNobody, kNobody);
    const auto second = ExitDatagram(0, 1, kNobody + 1, kNobody + 1);
    bytes.insert(bytes.end(), second.begin(), second.end());
    EXPECT_EQ(Handle(bytes), 2U);
}

TEST_F(ConnectorSource, StoppedSourceHasNothingToRead) {
    EXPECT_EQ(m_source.Descriptor(), -1);
    EXPECT_EQ(m_source.Drain([](const ProcessEvent&) {}), 0U);
    m_source.Stop();
}

}  // namespace
