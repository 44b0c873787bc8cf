#pragma once

#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace NetCollect {

/// A socket that is open for others.
struct Socket {
    std::uint64_t m_inode = 0;  ///< of its file: unique on the host, across network namespaces
    int m_port = 0;             ///< the local one
    int m_protocol = 0;         ///< 6 TCP, 17 UDP (RFC 790)
};

/// Sockets by their inodes.
using SocketSet = std::unordered_set<std::uint64_t>;

/// The processes that hold a socket, by its inode.
using Holders = std::unordered_map<std::uint64_t, std::vector<int>>;

}  // namespace NetCollect
