#pragma once

#include <array>
#include <cstdint>

namespace FileNotify {

/// Where the events went.
///
///     m_events == m_own + m_outside + m_routed + m_changes + m_overflows
///     m_messages == m_delivered + m_lostBehind + m_lostGone + m_waiting
struct Counters {
    std::uint64_t m_events = 0;     ///< read from the kernel
    std::uint64_t m_own = 0;        ///< of this program itself, dropped
    std::uint64_t m_outside = 0;    ///< in a directory that nobody asks for (any more), dropped
    std::uint64_t m_routed = 0;     ///< passed on to subscribers
    std::uint64_t m_changes = 0;    ///< of directories, or only of a file's making: no accesses
    std::uint64_t m_overflows = 0;  ///< times the kernel's queue was full; how much it lost then,
                                    ///< it does not tell

    /// What the routed ones tell of, in the order open, access, modify, close_write, close_nowrite.
    /// The kernel merges: one event may tell of several.
    std::array<std::uint64_t, 5> m_accesses{};

    std::uint64_t m_messages = 0;    ///< made of the routed events, for all subscribers
    std::uint64_t m_delivered = 0;   ///< put into an inbox
    std::uint64_t m_lostBehind = 0;  ///< the subscriber was too far behind
    std::uint64_t m_lostGone = 0;    ///< the subscriber went away before it took them
    std::uint64_t m_waiting = 0;     ///< kept until the inbox has room

    /// True when every event and every message is accounted for.
    bool Balanced() const {
        return m_events == m_own + m_outside + m_routed + m_changes + m_overflows &&
               m_messages == m_delivered + m_lostBehind + m_lostGone + m_waiting;
    }
};

}  // namespace FileNotify
