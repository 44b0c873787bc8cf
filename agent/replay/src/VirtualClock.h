#pragma once

#include "sdk/Mutex.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Replay {

/// The time of a replay. It stands still while a thread of the product works; when all of them wait
/// it jumps to the next moment at which something happens. So an hour passes in a second, and yet
/// each thread wakes up at the moment, and in the order, in which it would have in that hour.
///
/// The functions that the product waits with (usleep, epoll_wait) and asks for the time with (time)
/// lead here while a clock lives: see ReplacedFunctions.cpp.
///
/// Threads: Sleep, WaitFor and Now on those of the product; everything else on the one that plays.
/// One clock at a time.
class VirtualClock {
public:
    /// @param nowUs  microseconds since the epoch
    explicit VirtualClock(std::int64_t nowUs);

    /// No thread of the product may wait any more.
    ~VirtualClock();
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    /// The clock that counts, or null: the real one does.
    static VirtualClock* Current();

    std::int64_t Now() const { return m_now.load(std::memory_order_relaxed); }

    /// Returns when so much time has passed.
    void Sleep(std::int64_t microseconds);

    /// Returns when the descriptor is readable or so much time has passed. Negative: for ever.
    void WaitFor(int descriptor, int milliseconds);

    /// How many threads the product has that wait by this clock.
    void SetThreads(std::size_t threads) { m_threads = threads; }

    /// Returns when each of them waits for a time that has not come, and has nothing to read.
    void AwaitQuiet();

    /// Lets time pass, and what is due in it happen. Returns at that time, and in quiet.
    void RunUntil(std::int64_t us);

    /// Gives the real clock back: whoever waits, wakes up. For the end.
    void Release();

private:
    /// One thread that waits.
    struct Sleeper {
        std::int64_t m_until = 0;
        int m_descriptor = -1;  // -1: none
        int m_wake = -1;        // ends the wait
        bool m_woken = false;
    };

    void Wait(Sleeper& sleeper);
    bool IsQuiet() const SDK_REQUIRES(m_mutex);
    static bool IsReadable(int descriptor);
    static void WakeUp(Sleeper& sleeper);
    bool WakeNext(std::int64_t us);

    std::atomic<std::int64_t> m_now;
    std::size_t m_threads = 0;
    mutable SDK::Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::vector<Sleeper*> m_sleepers SDK_GUARDED_BY(m_mutex);  // who slept first comes first
    bool m_released SDK_GUARDED_BY(m_mutex) = false;
};

}  // namespace Replay
