#pragma once

#include <array>
#include <cstdint>

namespace ProcessCollect {

/// Where the events went. An event counts once for each subscriber that wants it, and once when
/// nobody does, so that always
///
///     m_seen == m_delivered + m_filteredUnwanted + m_filteredRepeated
///               + m_lostInKernel + m_lostBehind + m_lostGone + m_waiting
struct Counters {
    std::uint64_t m_seen = 0;
    std::uint64_t m_delivered = 0;         ///< put into a subscriber's inbox
    std::uint64_t m_filteredUnwanted = 0;  ///< of a type that nobody subscribed to
    std::uint64_t m_filteredRepeated = 0;  ///< told before, by the kernel or by a scan
    std::uint64_t m_lostInKernel = 0;      ///< the source could not tell
    std::uint64_t m_lostBehind = 0;        ///< the subscriber was too far behind
    std::uint64_t m_lostGone = 0;          ///< the subscriber went away before it took them
    std::uint64_t m_waiting = 0;           ///< kept until the subscriber's inbox has room

    std::array<std::uint64_t, 4> m_kinds{};  ///< of the seen, by ProcsMessage::Flag; of those that
                                             ///< were repeated or lost in the kernel nobody asks

    /// True when every event is accounted for.
    bool Balanced() const {
        return m_seen == m_delivered + m_filteredUnwanted + m_filteredRepeated + m_lostInKernel +
                             m_lostBehind + m_lostGone + m_waiting;
    }
};

}  // namespace ProcessCollect
