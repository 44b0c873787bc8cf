#include "VirtualClock.h"

#include "sdk/Mutex.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = Replay::VirtualClock;
using Strings = std::vector<std::string>;

constexpr std::int64_t kStart = 1000000;

/// Something to read.
class Signal {
public:
    Signal() : m_descriptor(::eventfd(0, EFD_NONBLOCK)) {}
    ~Signal() { ::close(m_descriptor); }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    int Descriptor() const { return m_descriptor; }
    void Raise() const { EXPECT_EQ(::eventfd_write(m_descriptor, 1), 0); }
    bool Take() const {
        eventfd_t value = 0;
        return ::eventfd_read(m_descriptor, &value) == 0;
    }

private:
    const int m_descriptor;
};

class VirtualClock : public testing::Test {
protected:
    ~VirtualClock() override {
        m_clock.Release();
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

    /// Starts a thread of the product and waits until it waits.
    void Start(std::function<void()> work) {
        m_threads.emplace_back(std::move(work));
        m_clock.SetThreads(m_threads.size());
        m_clock.AwaitQuiet();
    }

    void Note(const std::string& text) {
        const SDK::LockGuard lock(m_mutex);
        m_notes.push_back(text + " at " + std::to_string(m_clock.Now() - kStart));
    }
    Strings Notes() {
        const SDK::LockGuard lock(m_mutex);
        return m_notes;
    }

    Clock m_clock{kStart};
    std::vector<std::thread> m_threads;
    SDK::Mutex m_mutex;
    Strings m_notes SDK_GUARDED_BY(m_mutex);
};

TEST_F(VirtualClock, StandsStillWhileNobodyMovesIt) {
    EXPECT_EQ(m_clock.Now(), kStart);
    m_clock.RunUntil(kStart + 5);
    EXPECT_EQ(m_clock.Now(), kStart + 5);
    m_clock.RunUntil(kStart);
    EXPECT_EQ(m_clock.Now(), kStart + 5) << "it never runs backwards";
}

TEST_F(VirtualClock, IsTheOneThatCountsUntilItIsReleased) {
    EXPECT_EQ(Clock::Current(), &m_clock);
    m_clock.Release();
    EXPECT_EQ(Clock::Current(), nullptr);
}

TEST_F(VirtualClock, WakesSleepersWhenTheirTimeHasComeAndNotBefore) {
    Start([this] {
        m_clock.Sleep(100);
        Note("awake");
        m_clock.Sleep(1000000000);
    });
    m_clock.RunUntil(kStart + 99);
    EXPECT_EQ(Notes(), Strings());
    m_clock.RunUntil(kStart + 500);
    EXPECT_EQ(Notes(), Strings{"awake at 100"});
    EXPECT_EQ(m_clock.Now(), kStart + 500);
}

TEST_F(VirtualClock, WakesSleepersInTheOrderOfTheirTimesAndThenOfTheirSleep) {
    for (const auto& [name, period] :
         {std::pair("a", 30), std::pair("b", 20), std::pair("c", 30)}) {
        Start([this, name = std::string(name), period = period] {
            for (int i = 0; i < 2; ++i) {
                m_clock.Sleep(period);
                Note(name);
            }
            m_clock.Sleep(1000000000);
        });
    }
    m_clock.RunUntil(kStart + 100);
    EXPECT_EQ(Notes(), (Strings{"b at 20", "a at 30", "c at 30", "b at 40", "a at 60", "c at 60"}));
}

TEST_F(VirtualClock, EndsAWaitForADescriptorWithoutTimePassing) {
    const Signal signal;
    Start([&] {
        m_clock.WaitFor(signal.Descriptor(), 1000);
        Note(signal.Take() ? "message" : "time-out");
        m_clock.WaitFor(signal.Descriptor(), 1000);
        Note(signal.Take() ? "message" : "time-out");
        m_clock.WaitFor(signal.Descriptor(), -1);
    });
    m_clock.RunUntil(kStart + 10);
    signal.Raise();
    m_clock.AwaitQuiet();
    EXPECT_EQ(Notes(), Strings{"message at 10"});
    m_clock.RunUntil(kStart + 2000000);
    EXPECT_EQ(Notes(), (Strings{"message at 10", "time-out at 1000010"}));
}

TEST_F(VirtualClock, NeverEndsAWaitForEver) {
    const Signal signal;
    Start([&] {
        m_clock.WaitFor(signal.Descriptor(), -1);
        Note("awake");
    });
    m_clock.RunUntil(kStart + 1000000000000000);
    EXPECT_EQ(Notes(), Strings());
}

TEST_F(VirtualClock, IsNotQuietBeforeEveryThreadWaits) {
    std::atomic<bool> go{false};
    std::atomic<bool> asleep{false};
    bool asleepWhenQuiet = false;
    m_threads.emplace_back([&] {
        TestSupport::WaitUntil([&] { return go.load(); });
        asleep = true;
        m_clock.Sleep(1000000);
    });
    m_clock.SetThreads(1);
    std::thread player([&] {
        m_clock.AwaitQuiet();
        asleepWhenQuiet = asleep;
    });
    go = true;
    player.join();
    EXPECT_TRUE(asleepWhenQuiet);
}

TEST_F(VirtualClock, IsQuietOnlyWhenWhatWentFromThreadToThreadIsHandled) {
    constexpr int kRounds = 20000;
    const Signal first;
    const Signal second;
    std::atomic<int> handled{0};
    Start([&] {
        while (Clock::Current() != nullptr) {
            m_clock.WaitFor(second.Descriptor(), -1);
            handled += second.Take() ? 1 : 0;
        }
    });
    Start([&] {
        while (Clock::Current() != nullptr) {
            m_clock.WaitFor(first.Descriptor(), -1);
            if (first.Take()) {
                second.Raise();
            }
        }
    });
    for (int i = 1; i <= kRounds; ++i) {
        first.Raise();
        m_clock.AwaitQuiet();
        ASSERT_EQ(handled, i);
    }
}

TEST_F(VirtualClock, LetsEverybodyGoAtTheEnd) {
    const Signal signal;
    Start([this] { m_clock.Sleep(1000000000); });
    Start([&] { m_clock.WaitFor(signal.Descriptor(), -1); });
    m_clock.Release();
    for (std::thread& thread : m_threads) {
        thread.join();
    }
    m_threads.clear();
    m_clock.Sleep(1000000000);
    m_clock.WaitFor(signal.Descriptor(), -1);
}

}  // namespace
