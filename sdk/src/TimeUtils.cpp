#include "sdk/TimeUtils.h"

#include <ctime>

namespace SDK {

namespace {

constexpr unsigned long kTicksPerSecond = 100;
constexpr unsigned long kNanosecondsPerTick = 1000000000UL / kTicksPerSecond;

}  // namespace

std::int64_t TimeUtils::GetCurrentTimestampS() { return std::time(nullptr); }

unsigned long TimeUtils::GetCurrentSystemTickUsed() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<unsigned long>(now.tv_sec) * kTicksPerSecond +
           static_cast<unsigned long>(now.tv_nsec) / kNanosecondsPerTick;
}

}  // namespace SDK
