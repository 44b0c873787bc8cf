#include "sdk/InnerCpuCtrlUtils.h"

#include "sdk/TimeUtils.h"
#include "support/CapturedLog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <thread>

namespace {

using SDK::InnerCpuCtrlUtils;
using std::chrono::milliseconds;
using TestSupport::CapturedLog;
using Clock = std::chrono::steady_clock;

class InnerCpuCtrlUtilsTest : public testing::Test {
protected:
    ~InnerCpuCtrlUtilsTest() override { InnerCpuCtrlUtils::SetShare(0); }

    /// Uses that much processor time, however busy the machine is.
    static void Burn(milliseconds time) {
        const auto end = CpuTime() + time;
        while (CpuTime() < end) {
        }
    }
    /// How long an adjustment after a window of ticks takes.
    static milliseconds Adjust(unsigned long usedTicks) {
        const auto start = Clock::now();
        InnerCpuCtrlUtils::AdjustThreadCpu("src/Some.cpp", 46, "some_task",
                                           SDK::TimeUtils::GetCurrentSystemTickUsed(), usedTicks);
        return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    }
    /// The account is the thread's own: each test has a fresh one.
    template <typename Steps>
    static void InNewThread(const Steps& steps) {
        std::thread(steps).join();
    }

private:
    static std::chrono::nanoseconds CpuTime() {
        timespec used{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
        return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
    }
};

TEST_F(InnerCpuCtrlUtilsTest, IsOffUntilAShareIsSet) {
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    InnerCpuCtrlUtils::SetShare(50);
    EXPECT_TRUE(InnerCpuCtrlUtils::IsEnabled());
    InnerCpuCtrlUtils::SetShare(-5);
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    InnerCpuCtrlUtils::SetShare(500);
    EXPECT_TRUE(InnerCpuCtrlUtils::IsEnabled());
}

TEST_F(InnerCpuCtrlUtilsTest, SuggestsATenthOfASecond) {
    EXPECT_EQ(InnerCpuCtrlUtils::GetSuggestedRunTick(), 10U);
}

TEST_F(InnerCpuCtrlUtilsTest, AThreadAheadOfItsShareSleeps) {
    InnerCpuCtrlUtils::SetShare(25);
    InNewThread([] {
        Adjust(1);
        Burn(milliseconds(50));
        // 50 ms of work at 25 % owe 150 ms of rest, and the window had none.
        EXPECT_GE(Adjust(5), milliseconds(150));
    });
}

TEST_F(InnerCpuCtrlUtilsTest, RestWithinTheWindowCounts) {
    const CapturedLog log;
    InnerCpuCtrlUtils::SetShare(50);
    InNewThread([] {
        Adjust(1);
        Burn(milliseconds(20));
        Adjust(100);
    });
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(InnerCpuCtrlUtilsTest, TheSleepItselfSavesUpNoBurst) {
    InnerCpuCtrlUtils::SetShare(75);
    InNewThread([] {
        Adjust(1);
        Burn(milliseconds(60));
        EXPECT_GE(Adjust(6), milliseconds(20));
        // As a task counts: 20 ms of sleep and 60 ms of work. That sleep was owed already.
        Burn(milliseconds(60));
        EXPECT_GE(Adjust(8), milliseconds(15));
    });
}

TEST_F(InnerCpuCtrlUtilsTest, ALongWaitSavesUpASecondAtTheMost) {
    InnerCpuCtrlUtils::SetShare(5);
    InNewThread([] {
        Adjust(1);
        Burn(milliseconds(70));
        // 70 ms at 5 % owe 1330 ms; of a minute's wait 1000 ms count.
        EXPECT_GE(Adjust(6000), milliseconds(330));
    });
}

TEST_F(InnerCpuCtrlUtilsTest, WhatIsOwedBeyondASecondIsSleptAtTheNextCall) {
    InnerCpuCtrlUtils::SetShare(5);
    InNewThread([] {
        Adjust(1);
        Burn(milliseconds(70));
        EXPECT_GE(Adjust(7), milliseconds(1000));
        EXPECT_GE(Adjust(100), milliseconds(330));
    });
}

TEST_F(InnerCpuCtrlUtilsTest, TellsWhoSleepsAndWhere) {
    const CapturedLog log;
    InnerCpuCtrlUtils::SetShare(1);
    InNewThread([] {
        Adjust(1);
        Burn(milliseconds(20));
        Adjust(2);
    });
    ASSERT_EQ(log.Lines().size(), 1U);
    const CapturedLog::Line line = log.Lines().front();
    EXPECT_EQ(line.priority, Poco::Message::PRIO_DEBUG);
    EXPECT_EQ(line.text, "Task(some_task) is ahead of its share(1%), it sleeps 1000 ms");
    EXPECT_EQ(line.file, "Some.cpp");
    EXPECT_EQ(line.line, 46);
}

TEST_F(InnerCpuCtrlUtilsTest, NobodySleepsWhileItIsOff) {
    const CapturedLog log;
    InNewThread([] {
        Adjust(1);
        Burn(milliseconds(20));
        Adjust(1);
    });
    EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
