#pragma once

#include "Counters.h"
#include "Subscriber.h"
#include "process_collect/ProcsMessage.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace ProcessCollect {

/// Hands events to those who subscribed, each with a copy of its own, and keeps the books.
///
/// Threads: one at a time.
class EventDispatcher {
public:
    using Info = Engine::ProcsMessage::procInfo;

    /// @param backlog  events kept for a subscriber whose inbox is full
    explicit EventDispatcher(std::size_t backlog);

    /// Adds a type (ProcsMessage::Flag) to what an inbox is sent. @return false for another type
    bool Subscribe(unsigned int type, const std::shared_ptr<Framework::Inbox>& inbox);

    /// Takes a type away again. With the last one, what waits for the inbox is given up.
    void Unsubscribe(unsigned int type, const std::shared_ptr<Framework::Inbox>& inbox);

    /// Queues an event for everyone who wants it; Flush delivers.
    /// @param info  copied for each; null when nothing is known of the process
    /// @param time  when it happened; the clock's zero: not known
    void Dispatch(Engine::ProcsMessage::Flag type, int pid, const Info* info,
                  Subscriber::TimePoint time = {});

    /// Counts an event that was told before.
    void CountRepeated() {
        ++m_counters.m_seen;
        ++m_counters.m_filteredRepeated;
    }

    /// Counts events that the source could not tell.
    void CountLostInKernel(std::uint64_t events) {
        m_counters.m_seen += events;
        m_counters.m_lostInKernel += events;
    }

    /// Moves what waits into the inboxes. Subscribers whose task is gone are dropped.
    void Flush();

    /// True while an inbox is too full for what waits for it.
    bool HasBacklog() const;

    std::size_t SubscriberCount() const { return m_subscribers.size(); }
    Counters GetCounters() const;

    /// How long it took from the events, whose time was known, to the inboxes.
    const SDK::LatencyHistogram& Latency() const { return m_latency; }

private:
    void CountSeen(Engine::ProcsMessage::Flag type);
    void DropAbandoned();

    const std::size_t m_backlog;
    std::vector<std::unique_ptr<Subscriber>> m_subscribers;
    Counters m_counters;  // m_waiting is summed up on demand
    SDK::LatencyHistogram m_latency;
};

}  // namespace ProcessCollect
