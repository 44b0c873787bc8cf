#include "outputs/Patience.h"

#include <gtest/gtest.h>

namespace {

using Engine::Patience;
using std::chrono::milliseconds;

const Patience::TimePoint kStart;

TEST(PatienceTest, EndsWhenNothingIsTaken) {
    Patience patience(milliseconds(100));
    patience.Begin(kStart);
    EXPECT_FALSE(patience.HasEnded(0, kStart + milliseconds(99)));
    EXPECT_TRUE(patience.HasEnded(0, kStart + milliseconds(100)));
}

TEST(PatienceTest, DoesNotEndWhileMoreAndMoreIsTaken) {
    Patience patience(milliseconds(100));
    patience.Begin(kStart);
    for (int i = 1; i <= 50; ++i) {
        EXPECT_FALSE(patience.HasEnded(static_cast<unsigned>(i), kStart + i * milliseconds(99)));
    }
}

TEST(PatienceTest, CountsFromTheLastThatWasTaken) {
    Patience patience(milliseconds(100));
    patience.Begin(kStart);
    EXPECT_FALSE(patience.HasEnded(7, kStart + milliseconds(90)));
    EXPECT_FALSE(patience.HasEnded(7, kStart + milliseconds(189)));
    EXPECT_TRUE(patience.HasEnded(7, kStart + milliseconds(190)));
}

TEST(PatienceTest, BeginsAnew) {
    Patience patience(milliseconds(100));
    patience.Begin(kStart);
    EXPECT_TRUE(patience.HasEnded(0, kStart + milliseconds(100)));
    patience.Begin(kStart + milliseconds(100));
    EXPECT_FALSE(patience.HasEnded(0, kStart + milliseconds(199)));
}

}  // namespace
