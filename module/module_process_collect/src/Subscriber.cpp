#include "Subscriber.h"

#include <algorithm>
#include <utility>

namespace ProcessCollect {

Subscriber::Subscriber(std::shared_ptr<Framework::Inbox> inbox, std::size_t backlog)
    : Framework::Outbox(std::move(inbox), backlog, "process events") {}

bool Subscriber::WantsAny() const {
    return std::find(m_types.begin(), m_types.end(), true) != m_types.end();
}

void Subscriber::SetWanted(unsigned int type, bool wanted) {
    if (type < m_types.size()) {
        m_types[type] = wanted;
    }
}

bool Subscriber::Offer(std::shared_ptr<Framework::Message> message, TimePoint time) {
    const bool kept = Outbox::Offer(std::move(message));
    if (kept) {
        m_times.push_back(time);
    }
    return kept;
}

std::size_t Subscriber::Flush(SDK::LatencyHistogram& latency) {
    const std::size_t moved = Outbox::Flush();
    if (moved == 0) {
        return 0;
    }
    // One look at the clock for all, after the last of them.
    const TimePoint now = std::chrono::steady_clock::now();
    const auto end = m_times.begin() + static_cast<std::ptrdiff_t>(moved);
    std::for_each(m_times.begin(), end, [&](TimePoint time) {
        if (time != TimePoint()) {
            latency.Add(now - time);
        }
    });
    m_times.erase(m_times.begin(), end);
    return moved;
}

}  // namespace ProcessCollect
