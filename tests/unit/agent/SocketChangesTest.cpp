#include "SocketChanges.h"

#include <gtest/gtest.h>

namespace {

using Agent::RecordedEvent;
using Agent::SocketMap;
using Changes = Agent::SocketChanges;
using Info = Engine::ProcsMessage::procInfo;
using Socket = Engine::NetProcsMessage::netProcInfo;

void Open(SocketMap& table, long inode, int port, const std::string& holder = "qemu") {
    auto socket = std::make_shared<Socket>();
    socket->m_port = port;
    socket->m_protocol = 6;
    auto info = std::make_shared<Info>();
    info->m_pid = 100;
    info->m_name = holder;
    socket->m_processes.emplace(100, info);
    table[inode] = socket;
}

/// The table that comes of applying the differences.
SocketMap Follow(SocketMap table, const SocketMap& after) {
    for (const RecordedEvent& change : Changes::Between(table, after)) {
        EXPECT_EQ(change.m_kind, RecordedEvent::Kind::SOCKETS);
        Changes::Apply(change, table);
    }
    return table;
}

TEST(SocketChanges, AreNoneBetweenEqualTables) {
    SocketMap one;
    SocketMap other;
    EXPECT_TRUE(Changes::Between(one, other).empty());
    Open(one, 5, 80);
    Open(other, 5, 80);
    EXPECT_TRUE(Changes::Between(one, other).empty());
}

TEST(SocketChanges, AreWhatWasOpenedAndWhatWasClosed) {
    SocketMap before;
    SocketMap after;
    Open(before, 5, 80);
    Open(before, 6, 81);
    Open(after, 6, 81);
    Open(after, 7, 82);
    const std::vector<RecordedEvent> events = Changes::Between(before, after);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].m_closed, std::vector<long>{5});
    ASSERT_EQ(events[0].m_opened.size(), 1U);
    EXPECT_EQ(events[0].m_opened.at(7)->m_port, 82);
}

TEST(SocketChanges, AreSocketsWithAnotherPortOrOtherHoldersToo) {
    SocketMap before;
    SocketMap after;
    Open(before, 5, 80);
    Open(before, 6, 80);
    Open(before, 7, 80);
    Open(after, 5, 81);
    Open(after, 6, 80, "sh");
    Open(after, 7, 80);
    after[7]->m_processes.emplace(101, std::make_shared<Info>());
    const SocketMap followed = Follow(before, after);
    EXPECT_EQ(followed.at(5)->m_port, 81);
    EXPECT_EQ(followed.at(6)->m_processes.at(100)->m_name, "sh");
    EXPECT_EQ(followed.at(7)->m_processes.size(), 2U);
}

TEST(SocketChanges, OfManySocketsComeInSeveralEvents) {
    SocketMap before;
    SocketMap after;
    for (long inode = 0; inode < 1000; ++inode) {
        Open(before, inode, 1);
        Open(after, 2000 + inode, 2);
    }
    EXPECT_GT(Changes::Between(before, after).size(), 10U);
    const SocketMap followed = Follow(before, after);
    EXPECT_EQ(followed.size(), 1000U);
    EXPECT_EQ(followed.begin()->first, 2000);
}

}  // namespace
