#pragma once

#include <chrono>
#include <cstdint>

namespace Engine {

/// How long is waited for another side. The time counts from when it last took something, so that
/// one that is slow is not mistaken for one that stands still.
///
/// Threads: one at a time.
class Patience {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    explicit Patience(std::chrono::milliseconds limit) : m_limit(limit) {}

    /// Waiting begins, with nothing taken.
    void Begin(TimePoint now) {
        m_taken = 0;
        m_since = now;
    }

    /// @param taken  how much the other side has taken since the beginning
    bool HasEnded(std::uint64_t taken, TimePoint now) {
        if (taken > m_taken) {
            m_taken = taken;
            m_since = now;
        }
        return now - m_since >= m_limit;
    }

private:
    const std::chrono::milliseconds m_limit;
    std::uint64_t m_taken = 0;
    TimePoint m_since;  // when it was seen that it took something
};

}  // namespace Engine
