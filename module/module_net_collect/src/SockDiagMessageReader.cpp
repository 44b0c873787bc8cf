#include "SockDiagMessageReader.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>

#include <algorithm>
#include <cstring>

namespace NetCollect {

namespace {

using Result = SockDiagMessageReader::Result;

template <typename T>
bool Load(const char* data, std::size_t size, T& value) {
    if (size < sizeof(value)) {
        return false;
    }
    std::memcpy(&value, data, sizeof(value));
    return true;
}

// MAX_ERRNO, include/linux/err.h. A refusal with another number is none of the kernel's.
constexpr int kLargestError = 4095;

bool IsError(int status) { return status < 0 && status >= -kLargestError; }

Result ReadError(const char* data, std::size_t size, int& error) {
    nlmsgerr refusal{};
    if (!Load(data, size, refusal) || !IsError(refusal.error)) {
        return Result::AGAIN;
    }
    error = -refusal.error;
    return Result::FAILED;
}

/// The end of a dump carries an error number, 0 for none.
Result ReadDone(const char* data, std::size_t size, int& error) {
    int status = 0;
    if (!Load(data, size, status) || status >= 0) {
        return Result::DONE;
    }
    if (!IsError(status)) {
        return Result::AGAIN;
    }
    error = -status;
    return Result::FAILED;
}

Result ReadSocket(const char* data, std::size_t size, int protocol, std::vector<Socket>& sockets) {
    inet_diag_msg found{};
    if (!Load(data, size, found)) {
        return Result::AGAIN;
    }
    const int port = ntohs(found.id.idiag_sport);
    // UDP sockets that are bound to nothing have no port yet; inode 0 is held by no process.
    if (port != 0 && found.idiag_inode != 0) {
        sockets.push_back({found.idiag_inode, port, protocol});
    }
    return Result::MORE;
}

}  // namespace

SockDiagMessageReader::Result SockDiagMessageReader::Read(const char* data, std::size_t size,
                                                          std::uint32_t sequence, int protocol,
                                                          std::vector<Socket>& sockets,
                                                          int& error) {
    Result result = Result::MORE;
    while (size > 0 && result == Result::MORE) {
        nlmsghdr header{};
        if (!Load(data, size, header) || header.nlmsg_len < sizeof(header) ||
            header.nlmsg_len > size) {
            return Result::AGAIN;
        }
        const char* const body = data + NLMSG_HDRLEN;
        const std::size_t bodySize = header.nlmsg_len - NLMSG_HDRLEN;
        if (header.nlmsg_seq != sequence) {
            // Left over from a request that was given up.
        } else if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
            result = Result::AGAIN;
        } else if (header.nlmsg_type == NLMSG_DONE) {
            result = ReadDone(body, bodySize, error);
        } else if (header.nlmsg_type == NLMSG_ERROR) {
            result = ReadError(body, bodySize, error);
        } else if (header.nlmsg_type == SOCK_DIAG_BY_FAMILY) {
            result = ReadSocket(body, bodySize, protocol, sockets);
        }
        const std::size_t step = std::min<std::size_t>(size, NLMSG_ALIGN(header.nlmsg_len));
        data += step;
        size -= step;
    }
    return result;
}

}  // namespace NetCollect
