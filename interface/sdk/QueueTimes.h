#pragma once

#include "sdk/LatencyHistogram.h"

#include <chrono>
#include <cstddef>
#include <deque>

namespace SDK {

/// When that began which waits in a queue: one time for each, in the queue's order. It tells how
/// long each took that leaves the queue for where it was to go.
///
/// Threads: one at a time; who has the queue guards both alike.
class QueueTimes {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Something joins the queue. @param begin  the clock's zero: not known
    void Push(TimePoint begin) { m_times.push_back(begin); }

    /// Some of which nothing is known stand before all others.
    void PushOldest(std::size_t count) { m_times.insert(m_times.begin(), count, TimePoint()); }

    /// The oldest have just got where they were to go. Costs one look at the clock.
    /// @param latency  takes how long each took since its beginning, where that is known
    void Deliver(std::size_t count, LatencyHistogram& latency);

    /// The oldest, or the newest, will not get there.
    void DropOldest(std::size_t count);
    void DropNewest(std::size_t count);

    /// How many wait.
    std::size_t Size() const { return m_times.size(); }

private:
    std::deque<TimePoint> m_times;
};

}  // namespace SDK
