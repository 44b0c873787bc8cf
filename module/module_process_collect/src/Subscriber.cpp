#include "Subscriber.h"

#include "ProcessCollectLog.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace ProcessCollect {

namespace {

// Messages offered by one call: enough to spread the cost of the wake-up, few enough to copy.
constexpr std::size_t kBulk = 128;

}  // namespace

Subscriber::Subscriber(std::shared_ptr<Framework::Inbox> inbox, std::size_t backlog)
    : m_inbox(std::move(inbox)), m_backlog(backlog) {}

bool Subscriber::WantsAny() const {
    return std::find(m_types.begin(), m_types.end(), true) != m_types.end();
}

void Subscriber::SetWanted(unsigned int type, bool wanted) {
    if (type < m_types.size()) {
        m_types[type] = wanted;
    }
}

bool Subscriber::Offer(std::shared_ptr<Framework::Message> message) {
    if (m_waiting.size() < m_backlog) {
        m_waiting.push_back(std::move(message));
        return true;
    }
    m_inbox->CountLost(1);
    if (!std::exchange(m_losing, true)) {
        SDK::LogError(Logger(),
                      "Task(%s) is %lu process events behind, the limit. Further ones are lost.",
                      m_inbox->Owner(), static_cast<unsigned long>(m_backlog));
    }
    return false;
}

std::size_t Subscriber::Flush() {
    std::size_t moved = 0;
    while (!m_waiting.empty()) {
        const std::size_t wanted = std::min(kBulk, m_waiting.size());
        const auto end = m_waiting.begin() + static_cast<std::ptrdiff_t>(wanted);
        const std::vector<std::shared_ptr<Framework::Message>> bulk(m_waiting.begin(), end);
        const auto taken = static_cast<std::size_t>(m_inbox->SendBulk(bulk));
        m_waiting.erase(m_waiting.begin(), m_waiting.begin() + static_cast<std::ptrdiff_t>(taken));
        moved += taken;
        if (taken < wanted) {
            return moved;
        }
    }
    m_losing = false;
    return moved;
}

}  // namespace ProcessCollect
