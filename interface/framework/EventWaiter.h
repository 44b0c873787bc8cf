#pragma once

#include "framework/Inbox.h"

#include <functional>
#include <map>
#include <memory>

namespace Framework {

/// Lets a task's thread sleep until a message, an event on one of its descriptors, or a time-out
/// comes. It sleeps in epoll and never polls.
///
/// Threads: WaitAndHandleEvent on the task's thread; AddEvent and RemoveEvent there or while the
/// task does not run; Wakeup on any thread.
class EventWaiter {
public:
    /// Called on the task's thread when its descriptor is readable.
    using Handler = std::function<void()>;

    /// @throws Poco::SystemException when no epoll descriptor can be had
    explicit EventWaiter(std::shared_ptr<Inbox> inbox);
    ~EventWaiter();
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    /// Waits, and runs the handlers of the descriptors that became readable.
    /// @param timeoutMs  milliseconds to wait at the most; 0 looks without waiting
    /// @param maxEvents  descriptors handled at the most
    /// @return -1 when messages are waiting in the inbox: at once when they were there before, and
    ///         then no handler runs. Else the number of events handled; 0 after the time-out or a
    ///         Wakeup
    int WaitAndHandleEvent(int timeoutMs, int maxEvents);

    /// Handles the descriptors that are readable now, without waiting and whatever the inbox holds.
    /// For a task that must not let a busy inbox keep it from its descriptors.
    /// @return the number of events handled
    int HandleReadyEvents(int maxEvents);

    /// Watches a descriptor. The caller keeps owning it and removes it before closing it.
    /// @return 0, or -1 when the kernel refuses (logged)
    int AddEvent(int descriptor, Handler handler);

    /// Stops watching a descriptor. Unknown ones are ignored.
    void RemoveEvent(int descriptor);

    /// Ends the wait that runs now, or else the next one.
    void Wakeup();

private:
    int PollAndHandle(int timeoutMs, int maxEvents);

    std::shared_ptr<Inbox> m_inbox;
    int m_epoll;
    std::map<int, Handler> m_handlers;
};

}  // namespace Framework
