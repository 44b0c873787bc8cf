#pragma once

#include "framework/Inbox.h"
#include "process_collect/ProcsMessage.h"

#include <array>
#include <cstdint>
#include <deque>
#include <memory>

namespace ProcessCollect {

/// One inbox that events go to, with what it has had no room for yet.
///
/// Threads: one at a time. Ownership: shares the inbox with its task.
class Subscriber {
public:
    /// @param backlog  events kept at the most while the inbox is full; further ones are lost
    Subscriber(std::shared_ptr<Framework::Inbox> inbox, std::size_t backlog);

    const std::shared_ptr<Framework::Inbox>& GetInbox() const { return m_inbox; }

    /// Whether events of a type are wanted. Types: ProcsMessage::Flag.
    bool Wants(unsigned int type) const { return type < m_types.size() && m_types[type]; }
    bool WantsAny() const;
    void SetWanted(unsigned int type, bool wanted);

    /// True when nobody but this subscriber holds the inbox: its task is gone.
    bool Abandoned() const { return m_inbox.use_count() == 1; }

    /// Queues an event behind those that wait.
    /// @return false when the backlog is full: the event is lost, which is counted and, once for
    ///         each time the subscriber falls behind, logged
    bool Offer(std::shared_ptr<Framework::Message> message);

    /// Moves what waits into the inbox, as far as there is room. @return how many were moved
    std::size_t Flush();

    std::size_t Waiting() const { return m_waiting.size(); }

private:
    const std::shared_ptr<Framework::Inbox> m_inbox;
    const std::size_t m_backlog;
    std::array<bool, 4> m_types{};  // by type; 0 is none
    std::deque<std::shared_ptr<Framework::Message>> m_waiting;
    bool m_losing = false;
};

}  // namespace ProcessCollect
