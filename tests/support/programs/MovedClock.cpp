// To be preloaded: moves what time(2) tells. Clocks for waiting are left alone.
//
//   CLOCK_SPEED=N     from the program's start on it runs N times as fast
//   CLOCK_SHIFT=FILE  the seconds that FILE holds, as eight bytes, are added at each call
//
// What the detection forgets after minutes it then forgets after moments.

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr std::int64_t kNanoseconds = 1000000000;

std::int64_t RealNanoseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * kNanoseconds + now.tv_nsec;
}

std::int64_t SpeedWanted() {
    const char* speed = std::getenv("CLOCK_SPEED");
    return speed == nullptr ? 1 : std::atol(speed);
}

/// Null when nobody wants a shift.
const std::atomic<std::int64_t>* MapShift() {
    const char* path = std::getenv("CLOCK_SHIFT");
    const int file = path == nullptr ? -1 : ::open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return nullptr;
    }
    void* mapped = ::mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, file, 0);
    ::close(file);
    return mapped == MAP_FAILED ? nullptr : static_cast<const std::atomic<std::int64_t>*>(mapped);
}

struct Clock {
    const std::int64_t m_start = RealNanoseconds();
    const std::int64_t m_speed = SpeedWanted();
    const std::atomic<std::int64_t>* const m_shift = MapShift();

    std::int64_t Now() const {
        const std::int64_t passed = (RealNanoseconds() - m_start) * m_speed;
        return (m_start + passed) / kNanoseconds + (m_shift == nullptr ? 0 : m_shift->load());
    }
};

}  // namespace

extern "C" time_t time(time_t* result) noexcept {
    static const Clock clock;
    const time_t now = clock.Now();
    if (result != nullptr) {
        *result = now;
    }
    return now;
}
