#pragma once

#include "Counters.h"
#include "FanotifyEvent.h"
#include "WatchTree.h"
#include "framework/Inbox.h"
#include "framework/Outbox.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace FileNotify {

/// Makes messages of events and keeps them until their subscribers take them.
///
/// The kernel merges events of one process and file that nobody has read yet. Here each kind of
/// access becomes a message of its own again, so that what a subscriber hears does not depend on
/// how fast it was read. Only for a subscriber that is behind they stay together, but for a change
/// of the file, which no other kind may hide.
///
/// Threads: one at a time. Ownership: shares the subscribers with the tree.
class EventRouter {
public:
    using SubscriberPtr = WatchTree::SubscriberPtr;

    /// Waiting messages from which on a subscriber counts as behind.
    static constexpr std::size_t BEHIND = 1024;

    /// @param tree     tells who wants the events of a directory
    /// @param backlog  messages kept for one subscriber at the most
    EventRouter(const WatchTree& tree, std::size_t backlog);

    /// The subscriber with this inbox, made on first use.
    SubscriberPtr Subscriber(const std::shared_ptr<Framework::Inbox>& inbox);

    /// Takes one event in. An overflow is counted and logged. What is no access of a file is
    /// counted and no more: the tree looks at it.
    void Route(const FanotifyEvent& event);

    /// Moves what waits into the inboxes.
    void Flush();

    /// Drops the subscribers whose task is gone. @return them
    std::vector<SubscriberPtr> DropAbandoned();

    bool HasBacklog() const;
    Counters GetCounters() const;

private:
    void CountAccesses(unsigned int mask);
    void Offer(Framework::Outbox& subscriber, int pid, unsigned int mask, const std::string& path);

    const WatchTree& m_tree;
    const std::size_t m_backlog;
    const int m_ownPid;
    std::vector<SubscriberPtr> m_subscribers;
    Counters m_counters;
};

}  // namespace FileNotify
