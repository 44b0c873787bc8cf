#pragma once

#include "Socket.h"
#include "sdk/UniqueDescriptor.h"

#include <cstdint>
#include <vector>

namespace NetCollect {

/// Asks the kernel for the sockets of one network namespace.
///
/// Threads: one at a time.
class SocketReader {
public:
    /// Reads the listening TCP and unconnected UDP sockets, IPv4 and IPv6, of the namespace that
    /// the calling thread is in. What is interrupted or cut short is asked for again.
    /// @param sockets  added to on success, else unchanged
    /// @return 0 or the error number
    int Read(std::vector<Socket>& sockets);

    /// How often a list had to be asked for again, since the reader was made.
    std::uint64_t Repeats() const { return m_repeats; }

private:
    int Dump(int family, int protocol, std::vector<Socket>& sockets);
    int Request(int family, int protocol);
    int Receive(int protocol, std::vector<Socket>& sockets, bool& again);

    SDK::UniqueDescriptor m_link;
    std::uint32_t m_sequence = 0;
    std::uint64_t m_repeats = 0;
};

}  // namespace NetCollect
