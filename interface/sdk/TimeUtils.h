#pragma once

#include <cstdint>

namespace SDK {

/// The two clocks of the agent. Stateless: any thread may call any function at any time.
class TimeUtils {
public:
    /// Wall-clock seconds since the Unix epoch. The same clock as time(2): the ages that tasks
    /// compute from both agree.
    static std::int64_t GetCurrentTimestampS();

    /// Ticks of the system's monotonic clock since boot, 100 in a second. They never run backwards
    /// and go on while the machine sleeps.
    static unsigned long GetCurrentSystemTickUsed();
};

}  // namespace SDK
