#include "CpuShare.h"

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

#include <gtest/gtest.h>

namespace {

using Engine::KeepCpuShare;
using SDK::InnerCpuCtrlUtils;
using SDK::TimeUtils;

class CpuShare : public testing::Test {
protected:
    /// A share of the whole processor: adjusting is allowed and never sleeps.
    CpuShare() { InnerCpuCtrlUtils::SetShare(100); }
    ~CpuShare() override { InnerCpuCtrlUtils::SetShare(0); }

    /// The tick that is kept after a pass of a loop whose previous adjustment was at this tick.
    static unsigned long Pass(unsigned long lastTick) {
        std::atomic<unsigned long> tick{lastTick};
        KeepCpuShare(tick, __FILE__, 46, "task");
        return tick;
    }
};

TEST_F(CpuShare, IsNotLookedAtWhileTheControlIsOff) {
    InnerCpuCtrlUtils::SetShare(0);
    EXPECT_EQ(Pass(0), 0U);
}

TEST_F(CpuShare, IsAdjustedWhenMoreThanTheSuggestedTicksHavePassed) {
    const unsigned long before = TimeUtils::GetCurrentSystemTickUsed();
    EXPECT_GE(Pass(before - InnerCpuCtrlUtils::GetSuggestedRunTick() - 1), before);
}

TEST_F(CpuShare, IsLeftAloneBefore) {
    const unsigned long suggested = InnerCpuCtrlUtils::GetSuggestedRunTick();
    unsigned long soon = 0;
    unsigned long kept = 0;
    do {  // again when this thread was held up until the adjustment was due
        soon = TimeUtils::GetCurrentSystemTickUsed() + suggested;
        kept = Pass(soon);
    } while (TimeUtils::GetCurrentSystemTickUsed() > soon + suggested);
    EXPECT_EQ(kept, soon);
}

TEST_F(CpuShare, IsAdjustedWhenTheLastTickLiesFarAhead) {
    const unsigned long before = TimeUtils::GetCurrentSystemTickUsed();
    const unsigned long kept = Pass(before + 1000000);
    EXPECT_GE(kept, before);
    EXPECT_LT(kept, before + 1000000);
}

}  // namespace
