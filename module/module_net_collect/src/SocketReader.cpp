#include "SocketReader.h"

#include "SockDiagMessageReader.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace NetCollect {

namespace {

// A list that changes faster than this is told as a failure.
constexpr int kAttempts = 5;

// The kernel fills at most 32 KiB at a time (NLMSG_GOODSIZE, max_recvmsg_len in af_netlink.c).
constexpr std::size_t kBufferBytes = std::size_t{64} << 10;

constexpr std::uint32_t StateBit(unsigned int state) { return std::uint32_t{1} << state; }

}  // namespace

int SocketReader::Read(std::vector<Socket>& sockets) {
    // A link belongs to the namespace in which it was made.
    m_link.Reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!m_link) {
        return errno;
    }
    std::vector<Socket> found;
    for (const int protocol : {IPPROTO_TCP, IPPROTO_UDP}) {
        for (const int family : {AF_INET, AF_INET6}) {
            const int error = Dump(family, protocol, found);
            // A kernel without IPv6 knows no such family.
            if (error != 0 && !(family == AF_INET6 && error == ENOENT)) {
                return error;
            }
        }
    }
    m_link.Reset();
    sockets.insert(sockets.end(), found.begin(), found.end());
    return 0;
}

int SocketReader::Dump(int family, int protocol, std::vector<Socket>& sockets) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        std::vector<Socket> found;
        bool again = false;
        int error = Request(family, protocol);
        if (error == 0) {
            error = Receive(protocol, found, again);
        }
        if (error != 0) {
            return error;
        }
        if (!again) {
            sockets.insert(sockets.end(), found.begin(), found.end());
            return 0;
        }
        ++m_repeats;
    }
    return EAGAIN;
}

int SocketReader::Request(int family, int protocol) {
    struct {
        nlmsghdr m_header{};
        inet_diag_req_v2 m_request{};
    } request;
    request.m_header.nlmsg_len = sizeof(request);
    request.m_header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.m_header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.m_header.nlmsg_seq = ++m_sequence;
    request.m_request.sdiag_family = static_cast<std::uint8_t>(family);
    request.m_request.sdiag_protocol = static_cast<std::uint8_t>(protocol);
    // UDP has no listening: what is connected to nobody takes from everybody.
    request.m_request.idiag_states = StateBit(protocol == IPPROTO_TCP ? TCP_LISTEN : TCP_CLOSE);
    ssize_t sent = 0;
    do {
        sent = ::send(m_link.Get(), &request, sizeof(request), 0);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(sizeof(request)) ? 0 : errno;
}

int SocketReader::Receive(int protocol, std::vector<Socket>& sockets, bool& again) {
    alignas(nlmsghdr) static thread_local std::array<char, kBufferBytes> buffer;
    for (;;) {
        // MSG_TRUNC: the true length, whatever fits.
        const ssize_t got = ::recv(m_link.Get(), buffer.data(), buffer.size(), MSG_TRUNC);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        again = (got < 0 && errno == ENOBUFS) || got > static_cast<ssize_t>(buffer.size());
        if (got < 0 || again) {
            return again ? 0 : errno;
        }
        int error = 0;
        const auto result = SockDiagMessageReader::Read(
            buffer.data(), static_cast<std::size_t>(got), m_sequence, protocol, sockets, error);
        again = result == SockDiagMessageReader::Result::AGAIN;
        if (result != SockDiagMessageReader::Result::MORE) {
            return error;
        }
    }
}

}  // namespace NetCollect
