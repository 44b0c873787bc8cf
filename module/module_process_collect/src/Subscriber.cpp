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
        m_times.Push(time);
    }
    return kept;
}

std::size_t Subscriber::Flush(SDK::LatencyHistogram& latency) {
    const std::size_t moved = Outbox::Flush();
    m_times.Deliver(moved, latency);
    return moved;
}

}  // namespace ProcessCollect
