#include "sdk/InnerCpuCtrlUtils.h"

#include "sdk/TimeUtils.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

using SDK::InnerCpuCtrlUtils;
using Clock = std::chrono::steady_clock;

class InnerCpuCtrlUtilsTest : public testing::Test {
protected:
    ~InnerCpuCtrlUtilsTest() override { InnerCpuCtrlUtils::SetShare(0); }

    static void Burn(std::chrono::milliseconds time) {
        const auto end = Clock::now() + time;
        while (Clock::now() < end) {
        }
    }
    /// How long an adjustment of a window of ticks takes.
    static std::chrono::milliseconds Adjust(unsigned long usedTicks) {
        const auto start = Clock::now();
        InnerCpuCtrlUtils::AdjustThreadCpu("file", 1, "task",
                                           SDK::TimeUtils::GetCurrentSystemTickUsed(), usedTicks);
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
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
    std::thread([] {
        Adjust(1);
        Burn(std::chrono::milliseconds(50));
        // 50 ms of work at 25 % need a window of 200 ms; 50 ms of it have passed.
        EXPECT_GE(Adjust(5), std::chrono::milliseconds(80));
    }).join();
}

TEST_F(InnerCpuCtrlUtilsTest, AThreadBehindItsShareDoesNotSleep) {
    InnerCpuCtrlUtils::SetShare(50);
    std::thread([] {
        Adjust(1);
        EXPECT_LT(Adjust(100), std::chrono::milliseconds(50));
    }).join();
}

TEST_F(InnerCpuCtrlUtilsTest, SleepsASecondAtTheMost) {
    InnerCpuCtrlUtils::SetShare(1);
    std::thread([] {
        Adjust(1);
        Burn(std::chrono::milliseconds(100));
        EXPECT_LT(Adjust(1), std::chrono::milliseconds(1500));
    }).join();
}

}  // namespace
