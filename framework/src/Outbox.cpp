#include "framework/Outbox.h"

#include "FrameworkLog.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace Framework {

namespace {

// Messages offered by one call: enough to spread the cost of the wake-up, few enough to copy.
constexpr std::size_t kBulk = 128;

}  // namespace

Outbox::Outbox(std::shared_ptr<Inbox> inbox, std::size_t backlog, std::string what)
    : m_inbox(std::move(inbox)), m_backlog(backlog), m_what(std::move(what)) {}

bool Outbox::Offer(std::shared_ptr<Message> message) {
    if (m_waiting.size() < m_backlog) {
        m_waiting.push_back(std::move(message));
        return true;
    }
    m_inbox->CountLost(1);
    if (!std::exchange(m_losing, true)) {
        SDK::LogError(Logger(), "Task(%s) is %lu %s behind, the limit. Further ones are lost.",
                      m_inbox->Owner(), static_cast<unsigned long>(m_backlog), m_what);
    }
    return false;
}

std::size_t Outbox::Flush() {
    std::size_t moved = 0;
    while (!m_waiting.empty()) {
        const std::size_t wanted = std::min(kBulk, m_waiting.size());
        const auto end = m_waiting.begin() + static_cast<std::ptrdiff_t>(wanted);
        const std::vector<std::shared_ptr<Message>> bulk(m_waiting.begin(), end);
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

}  // namespace Framework
