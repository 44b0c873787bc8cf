#include "sdk/QueueTimes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

namespace {

using std::chrono::hours;
using std::chrono::steady_clock;

class QueueTimes : public testing::Test {
protected:
    void PushFromAgo(hours ago) { m_times.Push(steady_clock::now() - ago); }

    /// Hours that so many took together, which is told exactly enough.
    double Deliver(std::size_t count) {
        SDK::LatencyHistogram latency;
        m_times.Deliver(count, latency);
        m_count = latency.Count();
        return std::round(latency.SumS() / 60) / 60;
    }

    SDK::QueueTimes m_times;
    std::uint64_t m_count = 0;  // of the last delivery
};

TEST_F(QueueTimes, TellHowLongEachThatIsDeliveredTookTheOldestFirst) {
    PushFromAgo(hours(4));
    PushFromAgo(hours(2));
    PushFromAgo(hours(1));
    EXPECT_EQ(Deliver(2), 6);
    EXPECT_EQ(m_count, 2U);
    EXPECT_EQ(m_times.Size(), 1U);
    EXPECT_EQ(Deliver(0), 0);
    EXPECT_EQ(Deliver(1), 1);
    EXPECT_EQ(m_times.Size(), 0U);
}

TEST_F(QueueTimes, TellNothingOfWhatHasNoBeginning) {
    PushFromAgo(hours(2));
    m_times.Push({});
    m_times.PushOldest(2);
    EXPECT_EQ(m_times.Size(), 4U);
    EXPECT_EQ(Deliver(2), 0);
    EXPECT_EQ(m_count, 0U) << "those that stand before all others";
    EXPECT_EQ(Deliver(2), 2);
    EXPECT_EQ(m_count, 1U);
}

TEST_F(QueueTimes, ForgetWhatIsDroppedAtEitherEnd) {
    for (const int ago : {8, 4, 2, 1}) {
        PushFromAgo(hours(ago));
    }
    m_times.DropOldest(1);
    m_times.DropNewest(2);
    EXPECT_EQ(m_times.Size(), 1U);
    EXPECT_EQ(Deliver(1), 4);
}

TEST_F(QueueTimes, OfAnEmptyQueueStayEmpty) {
    m_times.DropOldest(3);
    m_times.DropNewest(3);
    EXPECT_EQ(Deliver(3), 0);
    EXPECT_EQ(m_times.Size(), 0U);
}

}  // namespace
