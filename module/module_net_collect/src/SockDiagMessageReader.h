#pragma once

#include "Socket.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace NetCollect {

/// Takes apart the kernel's answers to a dump of sockets (sock_diag(7)).
class SockDiagMessageReader {
public:
    /// What a datagram amounts to.
    enum class Result {
        MORE,    ///< there are more to come
        DONE,    ///< that was all
        AGAIN,   ///< the list changed while it was read, or is cut short: ask again
        FAILED,  ///< the kernel refuses
    };

    /// @param sequence  of the request: other answers are left over from an earlier one
    /// @param protocol  that was asked for
    /// @param sockets   those with a port are added
    /// @param error     set when the result is FAILED
    static Result Read(const char* data, std::size_t size, std::uint32_t sequence, int protocol,
                       std::vector<Socket>& sockets, int& error);
};

}  // namespace NetCollect
