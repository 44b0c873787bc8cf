#include "sdk/LatencyHistogram.h"

#include <algorithm>
#include <iterator>
#include <numeric>

namespace SDK {

void LatencyHistogram::Add(Duration latency) {
    const Duration taken = std::max(latency, Duration::zero());
    const auto* const bound = std::lower_bound(BOUNDS.begin(), BOUNDS.end(), taken);
    ++m_counts[static_cast<std::size_t>(std::distance(BOUNDS.begin(), bound))];
    m_sumS += std::chrono::duration<double>(taken).count();
}

std::uint64_t LatencyHistogram::Count() const {
    return std::accumulate(m_counts.begin(), m_counts.end(), std::uint64_t{0});
}

}  // namespace SDK
