#include "sdk/LatencyHistogram.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using SDK::LatencyHistogram;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr std::size_t kUpTo250Us = 0;
constexpr std::size_t kUpTo500Us = 1;
constexpr std::size_t kLonger = LatencyHistogram::BOUNDS.size();

TEST(LatencyHistogram, IsEmptyAtFirst) {
    const LatencyHistogram histogram;
    EXPECT_EQ(histogram.Count(), 0U);
    EXPECT_EQ(histogram.SumS(), 0);
    EXPECT_EQ(histogram.GetCounts(), LatencyHistogram::Counts{});
}

TEST(LatencyHistogram, HasRisingBoundsAndBothAimsAmongThem) {
    const auto& bounds = LatencyHistogram::BOUNDS;
    EXPECT_TRUE(std::is_sorted(bounds.begin(), bounds.end(), std::less_equal<>()));
    EXPECT_NE(std::find(bounds.begin(), bounds.end(), milliseconds(2)), bounds.end());
    EXPECT_NE(std::find(bounds.begin(), bounds.end(), milliseconds(10)), bounds.end());
}

TEST(LatencyHistogram, CountsEachInTheLowestBucketThatHoldsItWithTheBoundIncluded) {
    LatencyHistogram histogram;
    histogram.Add(nanoseconds(0));
    histogram.Add(microseconds(250));
    histogram.Add(microseconds(250) + nanoseconds(1));
    EXPECT_EQ(histogram.GetCounts()[kUpTo250Us], 2U);
    EXPECT_EQ(histogram.GetCounts()[kUpTo500Us], 1U);
    EXPECT_EQ(histogram.Count(), 3U);
}

TEST(LatencyHistogram, CountsWhatIsLongerThanAllBounds) {
    LatencyHistogram histogram;
    histogram.Add(LatencyHistogram::BOUNDS.back());
    histogram.Add(std::chrono::hours(1));
    EXPECT_EQ(histogram.GetCounts()[kLonger - 1], 1U);
    EXPECT_EQ(histogram.GetCounts()[kLonger], 1U);
    EXPECT_DOUBLE_EQ(histogram.SumS(), 3610);
}

TEST(LatencyHistogram, AddsUpWhatAllTook) {
    LatencyHistogram histogram;
    histogram.Add(milliseconds(2));
    histogram.Add(microseconds(500));
    EXPECT_DOUBLE_EQ(histogram.SumS(), 0.0025);
}

TEST(LatencyHistogram, TakesLessThanNothingForNothing) {
    LatencyHistogram histogram;
    histogram.Add(milliseconds(-5));
    EXPECT_EQ(histogram.GetCounts()[kUpTo250Us], 1U);
    EXPECT_EQ(histogram.SumS(), 0);
}

}  // namespace
