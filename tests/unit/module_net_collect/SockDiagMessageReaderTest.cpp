#include "SockDiagMessageReader.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace {

using NetCollect::SockDiagMessageReader;
using NetCollect::Socket;
using Result = SockDiagMessageReader::Result;

constexpr std::uint32_t kSequence = 7;

/// A netlink message as the kernel writes it.
std::string Message(std::uint16_t type, const std::string& body, std::uint16_t flags = 0,
                    std::uint32_t sequence = kSequence) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof(header) + body.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = flags;
    header.nlmsg_seq = sequence;
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
    bytes += body;
    bytes.resize(NLMSG_ALIGN(bytes.size()));
    return bytes;
}

std::string SocketBody(std::uint32_t inode, std::uint16_t port) {
    inet_diag_msg found{};
    found.idiag_inode = inode;
    found.id.idiag_sport = htons(port);
    return {reinterpret_cast<const char*>(&found), sizeof(found)};
}

std::string Number(int number) { return {reinterpret_cast<const char*>(&number), sizeof(number)}; }

std::string Done(int status = 0) { return Message(NLMSG_DONE, Number(status)); }

class SockDiagMessages : public testing::Test {
protected:
    Result Read(const std::string& bytes) {
        return SockDiagMessageReader::Read(bytes.data(), bytes.size(), kSequence, 6, m_sockets,
                                           m_error);
    }

    std::vector<Socket> m_sockets;
    int m_error = 0;
};

TEST_F(SockDiagMessages, GiveInodePortAndProtocol) {
    EXPECT_EQ(Read(Message(SOCK_DIAG_BY_FAMILY, SocketBody(123, 5901))), Result::MORE);
    ASSERT_EQ(m_sockets.size(), 1U);
    EXPECT_EQ(m_sockets[0].m_inode, 123U);
    EXPECT_EQ(m_sockets[0].m_port, 5901);
    EXPECT_EQ(m_sockets[0].m_protocol, 6);
}

TEST_F(SockDiagMessages, EndWithTheirLast) {
    EXPECT_EQ(Read(Message(SOCK_DIAG_BY_FAMILY, SocketBody(1, 1)) +
                   Message(SOCK_DIAG_BY_FAMILY, SocketBody(2, 2)) + Done()),
              Result::DONE);
    EXPECT_EQ(m_sockets.size(), 2U);
}

TEST_F(SockDiagMessages, WithoutPortOrInodeAreLeftOut) {
    EXPECT_EQ(Read(Message(SOCK_DIAG_BY_FAMILY, SocketBody(1, 0)) +
                   Message(SOCK_DIAG_BY_FAMILY, SocketBody(0, 22)) + Done()),
              Result::DONE);
    EXPECT_TRUE(m_sockets.empty());
}

TEST_F(SockDiagMessages, OfAnotherRequestAreIgnored) {
    EXPECT_EQ(Read(Message(SOCK_DIAG_BY_FAMILY, SocketBody(1, 22), 0, 6) +
                   Message(NLMSG_DONE, Number(0), 0, 6) + Done()),
              Result::DONE);
    EXPECT_TRUE(m_sockets.empty());
}

TEST_F(SockDiagMessages, OfAListThatChangedMeanwhileAreAskedForAgain) {
    EXPECT_EQ(Read(Message(SOCK_DIAG_BY_FAMILY, SocketBody(1, 22), NLM_F_DUMP_INTR)),
              Result::AGAIN);
    EXPECT_EQ(Read(Message(NLMSG_DONE, Number(0), NLM_F_DUMP_INTR)), Result::AGAIN);
}

TEST_F(SockDiagMessages, ThatAreRefusalsTellTheError) {
    nlmsgerr refusal{};
    refusal.error = -EPERM;
    EXPECT_EQ(
        Read(Message(NLMSG_ERROR, {reinterpret_cast<const char*>(&refusal), sizeof(refusal)})),
        Result::FAILED);
    EXPECT_EQ(m_error, EPERM);
}

TEST_F(SockDiagMessages, ThatEndWithAnErrorTellIt) {
    EXPECT_EQ(Read(Done(-ENOENT)), Result::FAILED);
    EXPECT_EQ(m_error, ENOENT);
}

TEST_F(SockDiagMessages, WithAnErrorThatTheKernelDoesNotHaveAreAskedForAgain) {
    for (const int status : {0, 1, -4096, INT_MIN}) {
        nlmsgerr refusal{};
        refusal.error = status;
        EXPECT_EQ(
            Read(Message(NLMSG_ERROR, {reinterpret_cast<const char*>(&refusal), sizeof(refusal)})),
            Result::AGAIN)
            << status;
    }
    EXPECT_EQ(Read(Done(-4096)), Result::AGAIN);
    EXPECT_EQ(Read(Done(INT_MIN)), Result::AGAIN);
    EXPECT_EQ(Read(Done(-4095)), Result::FAILED);
}

TEST_F(SockDiagMessages, ThatAreCutShortAreAskedForAgain) {
    const std::string whole = Message(SOCK_DIAG_BY_FAMILY, SocketBody(1, 22));
    for (std::size_t size = 1; size < whole.size(); ++size) {
        EXPECT_EQ(Read(whole.substr(0, size)), Result::AGAIN) << size;
    }
    EXPECT_EQ(Read(Message(SOCK_DIAG_BY_FAMILY, "short")), Result::AGAIN);
    EXPECT_EQ(Read(Message(NLMSG_ERROR, "x")), Result::AGAIN);
    EXPECT_TRUE(m_sockets.empty());
}

TEST_F(SockDiagMessages, OfALengthThatCannotBeAreAskedForAgain) {
    std::string message = Message(SOCK_DIAG_BY_FAMILY, SocketBody(1, 22));
    const std::uint32_t length = 3;
    std::memcpy(message.data(), &length, sizeof(length));
    EXPECT_EQ(Read(message), Result::AGAIN);
}

TEST_F(SockDiagMessages, OfOtherTypesAreIgnored) {
    EXPECT_EQ(Read(Message(NLMSG_NOOP, "") + Done()), Result::DONE);
}

TEST_F(SockDiagMessages, AreNoneInAnEmptyDatagram) { EXPECT_EQ(Read(""), Result::MORE); }

}  // namespace
