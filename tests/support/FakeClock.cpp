#include "support/FakeClock.h"

#include <atomic>
#include <ctime>

namespace {

// 0: no clock lives, the real time counts.
std::atomic<std::int64_t> g_seconds{0};

std::int64_t RealTime() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

}  // namespace

/// Stands before the C library's function for the program and, because test programs export their
/// symbols, for every library that it loads.
extern "C" time_t time(time_t* result) noexcept {
    const std::int64_t fake = g_seconds.load();
    const time_t now = fake != 0 ? fake : RealTime();
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

namespace TestSupport {

FakeClock::FakeClock() { g_seconds = RealTime(); }
FakeClock::~FakeClock() { g_seconds = 0; }
void FakeClock::Set(std::int64_t seconds) { g_seconds = seconds; }
void FakeClock::Advance(std::int64_t seconds) { g_seconds += seconds; }
std::int64_t FakeClock::Now() const { return g_seconds; }

}  // namespace TestSupport
