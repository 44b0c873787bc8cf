#include "EventDispatcher.h"

#include <algorithm>
#include <utility>

namespace ProcessCollect {

namespace {

auto HasInbox(const std::shared_ptr<Framework::Inbox>& inbox) {
    return [&inbox](const auto& subscriber) { return subscriber->GetInbox() == inbox; };
}

}  // namespace

EventDispatcher::EventDispatcher(std::size_t backlog) : m_backlog(backlog) {}

bool EventDispatcher::Subscribe(unsigned int type, const std::shared_ptr<Framework::Inbox>& inbox) {
    if (type < Engine::ProcsMessage::FORK || type > Engine::ProcsMessage::EXIT) {
        return false;
    }
    auto found = std::find_if(m_subscribers.begin(), m_subscribers.end(), HasInbox(inbox));
    if (found == m_subscribers.end()) {
        m_subscribers.push_back(std::make_unique<Subscriber>(inbox, m_backlog));
        found = std::prev(m_subscribers.end());
    }
    (*found)->SetWanted(type, true);
    return true;
}

void EventDispatcher::Unsubscribe(unsigned int type,
                                  const std::shared_ptr<Framework::Inbox>& inbox) {
    const auto found = std::find_if(m_subscribers.begin(), m_subscribers.end(), HasInbox(inbox));
    if (found == m_subscribers.end()) {
        return;
    }
    (*found)->SetWanted(type, false);
    if (!(*found)->WantsAny()) {
        m_counters.m_delivered += (*found)->Flush(m_latency);
        m_counters.m_lostGone += (*found)->Waiting();
        m_subscribers.erase(found);
    }
}

void EventDispatcher::Dispatch(Engine::ProcsMessage::Flag type, int pid, const Info* info,
                               Subscriber::TimePoint time) {
    bool wanted = false;
    for (const auto& subscriber : m_subscribers) {
        if (!subscriber->Wants(type)) {
            continue;
        }
        wanted = true;
        CountSeen(type);
        auto copy = info == nullptr ? nullptr : std::make_shared<Info>(*info);
        if (!subscriber->Offer(std::make_shared<Engine::ProcsMessage>(type, pid, std::move(copy)),
                               time)) {
            ++m_counters.m_lostBehind;
        }
    }
    if (!wanted) {
        CountSeen(type);
        ++m_counters.m_filteredUnwanted;
    }
}

void EventDispatcher::CountSeen(Engine::ProcsMessage::Flag type) {
    ++m_counters.m_seen;
    ++m_counters.m_kinds.at(type);
}

void EventDispatcher::Flush() {
    DropAbandoned();
    for (const auto& subscriber : m_subscribers) {
        m_counters.m_delivered += subscriber->Flush(m_latency);
    }
}

void EventDispatcher::DropAbandoned() {
    std::erase_if(m_subscribers, [this](const std::unique_ptr<Subscriber>& subscriber) {
        if (!subscriber->Abandoned()) {
            return false;
        }
        m_counters.m_lostGone += subscriber->Waiting();
        return true;
    });
}

bool EventDispatcher::HasBacklog() const {
    return std::any_of(m_subscribers.begin(), m_subscribers.end(),
                       [](const auto& subscriber) { return subscriber->Waiting() != 0; });
}

Counters EventDispatcher::GetCounters() const {
    Counters counters = m_counters;
    for (const auto& subscriber : m_subscribers) {
        counters.m_waiting += subscriber->Waiting();
    }
    return counters;
}

}  // namespace ProcessCollect
