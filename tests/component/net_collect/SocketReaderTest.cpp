#include "SocketReader.h"

#include "Sockets.h"

#include <algorithm>

namespace {

using namespace NetCollectTest;
using NetCollect::Socket;

class SocketReaderTest : public testing::Test {
protected:
    /// The socket's row, if there is one.
    const Socket* Find(const OpenSocket& socket) {
        m_sockets.clear();
        EXPECT_EQ(m_reader.Read(m_sockets), 0);
        const auto found = std::find_if(m_sockets.begin(), m_sockets.end(), [&](const Socket& row) {
            return row.m_inode == socket.Inode();
        });
        return found == m_sockets.end() ? nullptr : &*found;
    }

    NetCollect::SocketReader m_reader;
    std::vector<Socket> m_sockets;
};

TEST_F(SocketReaderTest, FindsListeningAndBoundSocketsOfBothFamilies) {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        for (const int family : {AF_INET, AF_INET6}) {
            const OpenSocket socket(type, family);
            const Socket* row = Find(socket);
            ASSERT_NE(row, nullptr) << type << ' ' << family;
            EXPECT_EQ(row->m_port, socket.Port());
            EXPECT_EQ(row->m_protocol, type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP);
        }
    }
}

TEST_F(SocketReaderTest, LeavesOutATcpSocketThatDoesNotListen) {
    const OpenSocket bound(SOCK_STREAM, AF_INET, false);
    EXPECT_EQ(Find(bound), nullptr);
}

TEST_F(SocketReaderTest, LeavesOutConnections) {
    const OpenSocket server;
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    ::getsockname(server.Get(), reinterpret_cast<sockaddr*>(&address), &size);
    const OpenSocket client(SOCK_STREAM, AF_INET, false);
    ASSERT_EQ(::connect(client.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    const OpenSocket datagrams(SOCK_DGRAM);
    ASSERT_EQ(::connect(datagrams.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(Find(client), nullptr);
    EXPECT_EQ(Find(datagrams), nullptr);
    EXPECT_NE(Find(server), nullptr);
}

TEST_F(SocketReaderTest, FindsThousands) {
    std::vector<OpenSocket> sockets(2000);
    ASSERT_EQ(m_reader.Read(m_sockets), 0);
    std::size_t found = 0;
    NetCollect::SocketSet inodes;
    for (const Socket& row : m_sockets) {
        inodes.insert(row.m_inode);
    }
    for (const OpenSocket& socket : sockets) {
        found += inodes.count(socket.Inode());
    }
    EXPECT_EQ(found, sockets.size());
}

TEST_F(SocketReaderTest, AddsToWhatIsThere) {
    m_sockets.push_back({1, 2, 3});
    EXPECT_EQ(m_reader.Read(m_sockets), 0);
    EXPECT_EQ(m_sockets.front().m_inode, 1U);
}

}  // namespace
