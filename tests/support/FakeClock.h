#pragma once

#include <cstdint>

namespace TestSupport {

/// Takes over the C library's time() for the whole process while it lives. It starts frozen at the
/// real time and moves only when told to. One at a time.
class FakeClock {
public:
    FakeClock();
    ~FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    /// Sets the time, in seconds since the epoch.
    void Set(std::int64_t seconds);

    /// Moves the time, backwards too.
    void Advance(std::int64_t seconds);

    /// What time() tells now.
    std::int64_t Now() const;
};

}  // namespace TestSupport
