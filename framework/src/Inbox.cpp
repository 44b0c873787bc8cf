#include "framework/Inbox.h"

#include "FrameworkLog.h"

#include <algorithm>
#include <utility>

namespace Framework {

Inbox::Inbox(std::string owner, unsigned int capacity)
    : m_owner(std::move(owner)), m_queue(capacity) {}

int Inbox::Send(const std::shared_ptr<Message>& message) {
    if (m_queue.Enqueue(message) == 0) {
        CountLost(1);
        return 0;
    }
    m_accepted.fetch_add(1, std::memory_order_relaxed);
    m_losing.store(false, std::memory_order_relaxed);
    m_signal.Raise();
    return 1;
}

int Inbox::SendBulk(const std::vector<std::shared_ptr<Message>>& messages) {
    const int added = m_queue.EnqueueBulk(messages, static_cast<int>(messages.size()));
    if (added > 0) {
        m_accepted.fetch_add(static_cast<std::uint64_t>(added), std::memory_order_relaxed);
        m_losing.store(false, std::memory_order_relaxed);
        m_signal.Raise();
    }
    return added;
}

void Inbox::CountLost(std::uint64_t messages) {
    const std::uint64_t lost = m_lost.fetch_add(messages, std::memory_order_relaxed) + messages;
    if (!m_losing.exchange(true, std::memory_order_relaxed)) {
        SDK::LogError(Logger(),
                      "The inbox of task(%s) is full(%u messages). Messages are lost, %lu so far.",
                      m_owner, Capacity(), static_cast<unsigned long>(lost));
    }
}

int Inbox::Receive(std::vector<std::shared_ptr<Message>>& messages, int max) {
    // Room is made before the queue gives anything out: what it has given out it does not take
    // back, and its other receivers would wait for it.
    messages.reserve(messages.size() + std::min(static_cast<unsigned int>(max), Capacity()));
    return m_queue.DequeueBulk(messages, max);
}

}  // namespace Framework
