#include "ConnectorMessageReader.h"

#include "ConnectorDatagram.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace ProcessCollect;
using Kind = ConnectorMessage::Kind;

std::size_t Read(const std::vector<char>& bytes, ConnectorMessage& message) {
    return ConnectorMessageReader::Read(bytes.data(), bytes.size(), message);
}

TEST(ConnectorMessageReader, ReadsAFork) {
    const auto bytes = ForkDatagram(1, 9, 10, 11, 12);
    ConnectorMessage message;
    EXPECT_EQ(Read(bytes, message), bytes.size());
    EXPECT_EQ(message.m_kind, Kind::FORK);
    EXPECT_EQ(message.m_cpu, 1U);
    EXPECT_EQ(message.m_number, 9U);
    EXPECT_EQ(message.m_pid, 11);
    EXPECT_EQ(message.m_tgid, 12);
    EXPECT_EQ(message.m_parentTgid, 10);
}

TEST(ConnectorMessageReader, ReadsExecAndExit) {
    ConnectorMessage message;
    EXPECT_NE(Read(ExecDatagram(0, 1, 5), message), 0U);
    EXPECT_EQ(message.m_kind, Kind::EXEC);
    EXPECT_EQ(message.m_tgid, 5);
    EXPECT_EQ(message.m_time.time_since_epoch(), std::chrono::nanoseconds(1001));
    EXPECT_NE(Read(ExitDatagram(0, 2, 6, 5), message), 0U);
    EXPECT_EQ(message.m_kind, Kind::EXIT);
    EXPECT_EQ(message.m_pid, 6);
    EXPECT_EQ(message.m_tgid, 5);
}

TEST(ConnectorMessageReader, ReadsTheKernelsAnswer) {
    ConnectorMessage message;
    EXPECT_NE(Read(AnswerDatagram(1), message), 0U);
    EXPECT_EQ(message.m_kind, Kind::ACKNOWLEDGE);
    EXPECT_EQ(message.m_error, 1U);
}

TEST(ConnectorMessageReader, OtherEventsAreOther) {
    ConnectorMessage message;
    EXPECT_NE(Read(Datagram(0, 1, proc_event::PROC_EVENT_UID, {1, 1, 0, 0}), message), 0U);
    EXPECT_EQ(message.m_kind, Kind::OTHER);
}

TEST(ConnectorMessageReader, DatagramCutAnywhereIsRefusedAndChangesNothing) {
    const auto bytes = ForkDatagram(1, 9, 10, 11, 12);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        const std::vector<char> cut(bytes.begin(),
                                    bytes.begin() + static_cast<std::ptrdiff_t>(size));
        ConnectorMessage message;
        message.m_pid = -5;
        EXPECT_EQ(Read(cut, message), 0U) << size;
        EXPECT_EQ(message.m_pid, -5);
    }
}

TEST(ConnectorMessageReader, LengthsThatLieAreRefused) {
    ConnectorMessage message;
    auto bytes = ForkDatagram(1, 9, 10, 11, 12);
    nlmsghdr netlink{};
    std::memcpy(&netlink, bytes.data(), sizeof(netlink));
    netlink.nlmsg_len += 1;
    std::memcpy(bytes.data(), &netlink, sizeof(netlink));
    EXPECT_EQ(Read(bytes, message), 0U);
    netlink.nlmsg_len = NLMSG_HDRLEN;
    std::memcpy(bytes.data(), &netlink, sizeof(netlink));
    EXPECT_EQ(Read(bytes, message), 0U);
}

TEST(ConnectorMessageReader, OtherConnectorsAreRefused) {
    auto bytes = ForkDatagram(1, 9, 10, 11, 12);
    cn_msg connector{};
    std::memcpy(&connector, bytes.data() + NLMSG_HDRLEN, sizeof(connector));
    connector.id.idx = CN_IDX_PROC + 1;
    std::memcpy(bytes.data() + NLMSG_HDRLEN, &connector, sizeof(connector));
    ConnectorMessage message;
    EXPECT_EQ(Read(bytes, message), 0U);
}

}  // namespace
