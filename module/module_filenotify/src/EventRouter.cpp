#include "EventRouter.h"

#include "FileNotifyLog.h"
#include "WatchPath.h"
#include "filenotify/FileNotifyMessage.h"

#include <sys/fanotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace FileNotify {

namespace {

using Event = Engine::FileNotifyMessage::Event;

// In the order in which they happen to a file. fanotify's bits are inotify's.
constexpr std::array<unsigned int, 5> kKinds = {Event::OPEN, Event::ACCESS, Event::MODIFY,
                                                Event::CLOSE_WRITE, Event::CLOSE_NOWRITE};
static_assert(FAN_OPEN == Event::OPEN && FAN_ACCESS == Event::ACCESS &&
              FAN_MODIFY == Event::MODIFY && FAN_CLOSE_WRITE == Event::CLOSE_WRITE &&
              FAN_CLOSE_NOWRITE == Event::CLOSE_NOWRITE);

constexpr unsigned int kAllKinds =
    Event::OPEN | Event::ACCESS | Event::MODIFY | Event::CLOSE_WRITE | Event::CLOSE_NOWRITE;

}  // namespace

EventRouter::EventRouter(const WatchTree& tree, std::size_t backlog)
    : m_tree(tree), m_backlog(backlog), m_ownPid(::getpid()) {}

EventRouter::SubscriberPtr EventRouter::Subscriber(const std::shared_ptr<Framework::Inbox>& inbox) {
    const auto known = std::find_if(
        m_subscribers.begin(), m_subscribers.end(),
        [&](const SubscriberPtr& subscriber) { return subscriber->GetInbox() == inbox; });
    if (known != m_subscribers.end()) {
        return *known;
    }
    return m_subscribers.emplace_back(
        std::make_shared<Framework::Outbox>(inbox, m_backlog, "file events"));
}

void EventRouter::Route(const FanotifyEvent& event) {
    ++m_counters.m_events;
    if ((event.m_mask & FAN_Q_OVERFLOW) != 0) {
        ++m_counters.m_overflows;
        SDK::LogError(Logger(),
                      "The kernel's queue of file events (fs.fanotify.max_queued_events) was full, "
                      "%lu times so far. Events are lost, all marks are checked.",
                      static_cast<unsigned long>(m_counters.m_overflows));
        return;
    }
    const unsigned int mask = static_cast<unsigned int>(event.m_mask) & kAllKinds;
    if (mask == 0 || (event.m_mask & FAN_ONDIR) != 0) {
        ++m_counters.m_changes;
        return;
    }
    if (event.m_pid == m_ownPid) {
        ++m_counters.m_own;
        return;
    }
    const WatchTree::Directory* directory =
        event.m_hasKey ? m_tree.FindByKey(event.m_directory) : m_tree.FindByPath(event.m_directory);
    if (directory == nullptr) {
        ++m_counters.m_outside;
        return;
    }
    ++m_counters.m_routed;
    CountAccesses(mask);
    const std::string path = WatchPath::Join(directory->m_path, event.m_name);
    for (const SubscriberPtr& subscriber : directory->m_subscribers) {
        Offer(*subscriber, event.m_pid, mask, path);
    }
}

void EventRouter::CountAccesses(unsigned int mask) {
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        m_counters.m_accesses.at(i) += (mask & kKinds.at(i)) != 0 ? 1 : 0;
    }
}

void EventRouter::Offer(Framework::Outbox& subscriber, int pid, unsigned int mask,
                        const std::string& path) {
    const bool behind = subscriber.Waiting() >= BEHIND;
    const unsigned int apart = behind ? unsigned{Event::MODIFY} : kAllKinds;
    const auto send = [&](unsigned int bits) {
        ++m_counters.m_messages;
        const bool kept = subscriber.Offer(
            std::make_shared<Engine::FileNotifyMessage>(pid, static_cast<int>(bits), path));
        m_counters.m_lostBehind += kept ? 0 : 1;
    };
    for (const unsigned int kind : kKinds) {
        if ((mask & kind & apart) != 0) {
            send(kind);
        }
    }
    if ((mask & ~apart) != 0) {
        send(mask & ~apart);
    }
}

void EventRouter::Flush() {
    for (const SubscriberPtr& subscriber : m_subscribers) {
        m_counters.m_delivered += subscriber->Flush();
    }
}

std::vector<EventRouter::SubscriberPtr> EventRouter::DropAbandoned() {
    const auto first = std::stable_partition(
        m_subscribers.begin(), m_subscribers.end(),
        [](const SubscriberPtr& subscriber) { return !subscriber->Abandoned(); });
    std::vector<SubscriberPtr> gone(first, m_subscribers.end());
    m_subscribers.erase(first, m_subscribers.end());
    for (const SubscriberPtr& subscriber : gone) {
        m_counters.m_lostGone += subscriber->Waiting();
    }
    return gone;
}

bool EventRouter::HasBacklog() const {
    return std::any_of(m_subscribers.begin(), m_subscribers.end(),
                       [](const SubscriberPtr& subscriber) { return subscriber->Waiting() > 0; });
}

Counters EventRouter::GetCounters() const {
    Counters counters = m_counters;
    for (const SubscriberPtr& subscriber : m_subscribers) {
        counters.m_waiting += subscriber->Waiting();
    }
    return counters;
}

}  // namespace FileNotify
