#include "VirtualClock.h"

#include "sdk/UniqueDescriptor.h"

#include <Poco/Exception.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

namespace Replay {

namespace {

constexpr std::int64_t kUsPerMs = 1000;

std::atomic<VirtualClock*> g_current{nullptr};

/// A descriptor of this thread's own to be woken by.
int WakeDescriptor() {
    thread_local const SDK::UniqueDescriptor descriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!descriptor) {
        throw Poco::SystemException("eventfd");
    }
    return descriptor.Get();
}

}  // namespace

VirtualClock::VirtualClock(std::int64_t nowUs) : m_now(nowUs) { g_current.store(this); }

VirtualClock::~VirtualClock() { g_current.store(nullptr); }

VirtualClock* VirtualClock::Current() { return g_current.load(); }

void VirtualClock::Sleep(std::int64_t microseconds) {
    Sleeper sleeper;
    sleeper.m_until = Now() + microseconds;
    Wait(sleeper);
}

void VirtualClock::WaitFor(int descriptor, int milliseconds) {
    Sleeper sleeper;
    sleeper.m_descriptor = descriptor;
    sleeper.m_until = milliseconds < 0 ? std::numeric_limits<std::int64_t>::max()
                                       : Now() + milliseconds * kUsPerMs;
    Wait(sleeper);
}

void VirtualClock::Wait(Sleeper& sleeper) {
    sleeper.m_wake = WakeDescriptor();
    {
        const SDK::LockGuard lock(m_mutex);
        if (m_released) {
            return;
        }
        m_sleepers.push_back(&sleeper);
        m_changed.notify_all();
    }
    std::array<pollfd, 2> waited = {
        {{sleeper.m_wake, POLLIN, 0}, {sleeper.m_descriptor, POLLIN, 0}}};
    while (::poll(waited.data(), waited.size(), -1) < 0 && errno == EINTR) {
    }
    const SDK::LockGuard lock(m_mutex);
    std::erase(m_sleepers, &sleeper);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(sleeper.m_wake, &count, sizeof(count));
}

void VirtualClock::AwaitQuiet() {
    m_mutex.lock();
    // A thread becomes quiet in no other way than by beginning to wait.
    while (!IsQuiet()) {
        m_changed.wait(m_mutex);
    }
    m_mutex.unlock();
}

/// Under the lock nobody begins to wait. So whoever was given something to read by another one that
/// waits by now has it already.
bool VirtualClock::IsQuiet() const {
    return m_sleepers.size() >= m_threads &&
           std::none_of(m_sleepers.begin(), m_sleepers.end(), [](const Sleeper* sleeper) {
               return sleeper->m_woken || IsReadable(sleeper->m_descriptor);
           });
}

bool VirtualClock::IsReadable(int descriptor) {
    pollfd asked{descriptor, POLLIN, 0};
    return descriptor >= 0 && ::poll(&asked, 1, 0) > 0;
}

void VirtualClock::RunUntil(std::int64_t us) {
    do {
        AwaitQuiet();
    } while (WakeNext(us));
    m_now.store(std::max(Now(), us), std::memory_order_relaxed);
}

/// Goes on to the next moment that somebody waits for and wakes that one.
/// @return false when that moment is later than us
bool VirtualClock::WakeNext(std::int64_t us) {
    const SDK::LockGuard lock(m_mutex);
    const auto next = std::min_element(
        m_sleepers.begin(), m_sleepers.end(),
        [](const Sleeper* one, const Sleeper* other) { return one->m_until < other->m_until; });
    if (next == m_sleepers.end() || (*next)->m_until > us) {
        return false;
    }
    m_now.store(std::max(Now(), (*next)->m_until), std::memory_order_relaxed);
    WakeUp(**next);
    return true;
}

void VirtualClock::WakeUp(Sleeper& sleeper) {
    sleeper.m_woken = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(sleeper.m_wake, &one, sizeof(one));
}

void VirtualClock::Release() {
    g_current.store(nullptr);
    const SDK::LockGuard lock(m_mutex);
    m_released = true;
    for (Sleeper* sleeper : m_sleepers) {
        WakeUp(*sleeper);
    }
}

}  // namespace Replay
