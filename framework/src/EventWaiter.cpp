#include "framework/EventWaiter.h"

#include "FrameworkLog.h"

#include <Poco/Error.h>
#include <Poco/Exception.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace Framework {

namespace {

// Descriptors fetched by one call; a task that watches more meets the others in its next call.
constexpr int kMaxEvents = 128;

}  // namespace

EventWaiter::EventWaiter(std::shared_ptr<Inbox> inbox)
    : m_inbox(std::move(inbox)), m_epoll(::epoll_create1(EPOLL_CLOEXEC)) {
    if (m_epoll < 0) {
        throw Poco::SystemException("epoll_create1", errno);
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = m_inbox->Signal().Descriptor();
    if (::epoll_ctl(m_epoll, EPOLL_CTL_ADD, event.data.fd, &event) != 0) {
        const int error = errno;
        ::close(m_epoll);
        throw Poco::SystemException("epoll_ctl", error);
    }
}

EventWaiter::~EventWaiter() { ::close(m_epoll); }

int EventWaiter::WaitAndHandleEvent(int timeoutMs, int maxEvents) {
    if (!m_inbox->Empty()) {
        return -1;
    }
    m_inbox->Signal().PrepareSleep();
    int handled = 0;
    if (m_inbox->Empty()) {
        handled = PollAndHandle(timeoutMs, maxEvents);
    }
    m_inbox->Signal().FinishSleep();
    return m_inbox->Empty() ? handled : -1;
}

int EventWaiter::HandleReadyEvents(int maxEvents) { return PollAndHandle(0, maxEvents); }

int EventWaiter::AddEvent(int descriptor, Handler handler) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    if (::epoll_ctl(m_epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        SDK::LogError(Logger(), "Descriptor(%d) of task(%s) cannot be watched: %s", descriptor,
                      m_inbox->Owner(), Poco::Error::getMessage(errno));
        return -1;
    }
    m_handlers[descriptor] = std::move(handler);
    return 0;
}

void EventWaiter::RemoveEvent(int descriptor) {
    if (m_handlers.erase(descriptor) != 0) {
        ::epoll_ctl(m_epoll, EPOLL_CTL_DEL, descriptor, nullptr);
    }
}

void EventWaiter::Wakeup() { m_inbox->Signal().RaiseAlways(); }

int EventWaiter::PollAndHandle(int timeoutMs, int maxEvents) {
    std::array<epoll_event, kMaxEvents> events;
    // One more than asked for: the inbox's own signal does not count as an event.
    const int room = std::clamp(maxEvents + 1, 1, kMaxEvents);
    const int ready = ::epoll_wait(m_epoll, events.data(), room, timeoutMs);
    int handled = 0;
    for (int i = 0; i < ready && handled < maxEvents; ++i) {
        // Looked up anew each time: a handler may have removed another one's descriptor.
        const auto found = m_handlers.find(events[static_cast<std::size_t>(i)].data.fd);
        if (found != m_handlers.end()) {
            const Handler handler = found->second;
            handler();
            ++handled;
        }
    }
    return handled;
}

}  // namespace Framework
