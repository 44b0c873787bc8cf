#include "framework/WakeSignal.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <thread>

namespace {

using Framework::WakeSignal;

bool Readable(const WakeSignal& signal, int timeoutMs = 0) {
    pollfd descriptor{signal.Descriptor(), POLLIN, 0};
    return ::poll(&descriptor, 1, timeoutMs) == 1;
}

TEST(WakeSignal, RaisingForAnAwakeThreadLeavesTheDescriptorAlone) {
    WakeSignal signal;
    signal.Raise();
    EXPECT_FALSE(Readable(signal));
}

TEST(WakeSignal, RaisingForASleeperMakesTheDescriptorReadable) {
    WakeSignal signal;
    signal.PrepareSleep();
    signal.Raise();
    EXPECT_TRUE(Readable(signal));
}

TEST(WakeSignal, FinishingTheSleepEmptiesTheDescriptor) {
    WakeSignal signal;
    signal.PrepareSleep();
    signal.Raise();
    signal.FinishSleep();
    EXPECT_FALSE(Readable(signal));
}

TEST(WakeSignal, RaisingAlwaysEndsTheNextSleepEvenWhenNobodySleeps) {
    WakeSignal signal;
    signal.RaiseAlways();
    signal.PrepareSleep();
    EXPECT_TRUE(Readable(signal));
}

TEST(WakeSignal, NoWakeUpIsLostBetweenTheLastLookAndTheSleep) {
    constexpr int kRounds = 20000;
    WakeSignal signal;
    std::atomic<int> produced{0};
    std::thread waker([&] {
        for (int i = 0; i < kRounds; ++i) {
            produced.fetch_add(1, std::memory_order_release);
            signal.Raise();
        }
    });
    int seen = 0;
    bool slept = true;
    while (seen < kRounds && slept) {
        signal.PrepareSleep();
        if (produced.load(std::memory_order_acquire) == seen) {
            // A lost wake-up would sleep to the end of this long time-out.
            slept = Readable(signal, 10000);
        }
        signal.FinishSleep();
        seen = produced.load(std::memory_order_acquire);
    }
    waker.join();
    EXPECT_EQ(seen, kRounds);
}

}  // namespace
