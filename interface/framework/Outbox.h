#pragma once

#include "framework/Inbox.h"
#include "framework/Message.h"

#include <cstddef>
#include <deque>
#include <memory>
#include <string>

namespace Framework {

/// What a collector has for one subscriber: its inbox, and the messages that the inbox has had no
/// room for yet. A slow subscriber costs a bounded amount of memory and holds up nobody.
///
/// Threads: one at a time. Ownership: shares the inbox with its task.
class Outbox {
public:
    /// @param backlog  messages kept at the most while the inbox is full; further ones are lost
    /// @param what     what the messages are, for the log ("process events")
    Outbox(std::shared_ptr<Inbox> inbox, std::size_t backlog, std::string what);

    const std::shared_ptr<Inbox>& GetInbox() const { return m_inbox; }

    /// True when nobody but this outbox holds the inbox: its task is gone.
    bool Abandoned() const { return m_inbox.use_count() == 1; }

    /// Queues a message behind those that wait.
    /// @return false when the backlog is full: the message is lost, which is counted and, once for
    ///         each time the subscriber falls behind, logged
    bool Offer(std::shared_ptr<Message> message);

    /// Moves what waits into the inbox, as far as there is room. @return how many were moved
    std::size_t Flush();

    /// Messages that wait for room in the inbox.
    std::size_t Waiting() const { return m_waiting.size(); }

private:
    const std::shared_ptr<Inbox> m_inbox;
    const std::size_t m_backlog;
    const std::string m_what;
    std::deque<std::shared_ptr<Message>> m_waiting;
    bool m_losing = false;
};

}  // namespace Framework
