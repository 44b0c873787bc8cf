#include "sdk/TimeUtils.h"

#include "support/FakeClock.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

using SDK::TimeUtils;

TEST(GetCurrentTimestampS, IsTheClockOfTheCLibrary) {
    TestSupport::FakeClock clock;
    clock.Set(12345);
    EXPECT_EQ(TimeUtils::GetCurrentTimestampS(), 12345);
    EXPECT_EQ(std::time(nullptr), 12345);
    clock.Advance(-5);
    EXPECT_EQ(TimeUtils::GetCurrentTimestampS(), 12340);
}

TEST(GetCurrentTimestampS, IsTheRealTimeWithoutAFakeOne) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    EXPECT_GE(TimeUtils::GetCurrentTimestampS(), now.tv_sec);
    EXPECT_LE(TimeUtils::GetCurrentTimestampS(), now.tv_sec + 10);
}

TEST(GetCurrentSystemTickUsed, MovesAHundredTimesASecond) {
    const unsigned long before = TimeUtils::GetCurrentSystemTickUsed();
    timespec boot{};
    ::clock_gettime(CLOCK_BOOTTIME, &boot);
    EXPECT_NEAR(static_cast<double>(before), static_cast<double>(boot.tv_sec) * 100, 200);
    EXPECT_TRUE(TestSupport::WaitUntil(
        [before] { return TimeUtils::GetCurrentSystemTickUsed() > before; }));
}

}  // namespace
