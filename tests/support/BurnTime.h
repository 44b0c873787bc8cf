#pragma once

#include <time.h>

#include <chrono>

namespace TestSupport {

/// Keeps the processor busy until this thread has used so much of its time.
inline void BurnTime(std::chrono::nanoseconds time) {
    const auto used = [] {
        timespec now{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    };
    for (const auto end = used() + time; used() < end;) {
    }
}

}  // namespace TestSupport
