#include "framework/WakeSignal.h"

#include <Poco/Exception.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace Framework {

WakeSignal::WakeSignal() : m_descriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (m_descriptor < 0) {
        throw Poco::SystemException("eventfd", errno);
    }
}

WakeSignal::~WakeSignal() { ::close(m_descriptor); }

void WakeSignal::Raise() {
    // Acquire and release: with PrepareSleep's exchange it orders the waker's work before the
    // sleeper's last look, or else this exchange sees the sleeper.
    if (m_asleep.exchange(false, std::memory_order_acq_rel)) {
        RaiseAlways();
    }
}

void WakeSignal::RaiseAlways() {
    const std::uint64_t one = 1;
    // EAGAIN means that the counter is at its maximum: the descriptor is readable, which is the
    // aim.
    [[maybe_unused]] const ssize_t written = ::write(m_descriptor, &one, sizeof(one));
}

void WakeSignal::PrepareSleep() { m_asleep.exchange(true, std::memory_order_acq_rel); }

void WakeSignal::FinishSleep() {
    m_asleep.exchange(false, std::memory_order_acq_rel);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(m_descriptor, &count, sizeof(count));
}

}  // namespace Framework
