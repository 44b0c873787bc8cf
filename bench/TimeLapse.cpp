// To be preloaded: lets time(2) run TIME_LAPSE times as fast as it does, from the program's start
// on. What the detection forgets after minutes it then forgets after moments. Clocks for waiting
// are left alone.

#include <time.h>

#include <cstdint>
#include <cstdlib>

namespace {

constexpr std::int64_t kNanoseconds = 1000000000;

std::int64_t RealNanoseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * kNanoseconds + now.tv_nsec;
}

struct Lapse {
    std::int64_t m_start = RealNanoseconds();
    std::int64_t m_factor = 1;

    Lapse() {
        const char* factor = std::getenv("TIME_LAPSE");
        m_factor = factor == nullptr ? 1 : std::atol(factor);
    }
};

}  // namespace

extern "C" time_t time(time_t* result) noexcept {
    static const Lapse lapse;
    const std::int64_t passed = RealNanoseconds() - lapse.m_start;
    const time_t now = (lapse.m_start + passed * lapse.m_factor) / kNanoseconds;
    if (result != nullptr) {
        *result = now;
    }
    return now;
}
