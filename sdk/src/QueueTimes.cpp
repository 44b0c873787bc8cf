#include "sdk/QueueTimes.h"

#include <algorithm>

namespace SDK {

void QueueTimes::Deliver(std::size_t count, LatencyHistogram& latency) {
    if (count == 0) {
        return;
    }
    const TimePoint now = std::chrono::steady_clock::now();
    const auto end = m_times.begin() + static_cast<std::ptrdiff_t>(std::min(count, m_times.size()));
    std::for_each(m_times.begin(), end, [&](TimePoint begin) {
        if (begin != TimePoint()) {
            latency.Add(now - begin);
        }
    });
    m_times.erase(m_times.begin(), end);
}

void QueueTimes::DropOldest(std::size_t count) {
    m_times.erase(m_times.begin(),
                  m_times.begin() + static_cast<std::ptrdiff_t>(std::min(count, m_times.size())));
}

void QueueTimes::DropNewest(std::size_t count) {
    m_times.resize(m_times.size() - std::min(count, m_times.size()));
}

}  // namespace SDK
