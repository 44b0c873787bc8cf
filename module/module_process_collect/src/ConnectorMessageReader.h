#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace ProcessCollect {

/// One message of the kernel's process connector.
struct ConnectorMessage {
    enum class Kind {
        ACKNOWLEDGE,  ///< the answer to our request to listen
        FORK,
        EXEC,
        EXIT,
        OTHER,  ///< changes of user, session, name, ...
    };

    Kind m_kind = Kind::OTHER;
    int m_pid = 0;                                 ///< fork: the child's; of a thread
    int m_tgid = 0;                                ///< fork: the child's; of its process
    int m_parentTgid = 0;                          ///< fork only
    std::uint32_t m_error = 0;                     ///< ACKNOWLEDGE: an errno, or 0
    std::uint32_t m_cpu = 0;                       ///< where it happened
    std::uint32_t m_number = 0;                    ///< counts that processor's messages
    std::chrono::steady_clock::time_point m_time;  ///< when it happened
};

/// Reads netlink messages of the process connector. Stateless: any thread at any time.
class ConnectorMessageReader {
public:
    /// @param data     a datagram; its front is one netlink message
    /// @param message  filled
    /// @return bytes that the message takes, the next one begins there; 0, and message is
    /// unchanged,
    ///         when it is malformed or none of the connector's
    static std::size_t Read(const void* data, std::size_t size, ConnectorMessage& message);
};

}  // namespace ProcessCollect
