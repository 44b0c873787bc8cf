#include "Duration.h"

#include <gtest/gtest.h>

namespace {

using Agent::ParseDuration;
using Agent::ToText;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

TEST(Duration, IsReadInEveryUnit) {
    EXPECT_EQ(ParseDuration("90"), seconds(90));
    EXPECT_EQ(ParseDuration("90s"), seconds(90));
    EXPECT_EQ(ParseDuration("10m"), minutes(10));
    EXPECT_EQ(ParseDuration("24h"), hours(24));
    EXPECT_EQ(ParseDuration("7d"), hours(7 * 24));
    EXPECT_EQ(ParseDuration("365d"), hours(365 * 24));
}

TEST(Duration, IsNothingElse) {
    for (const char* text :
         {"", "s", "0", "0s", "-1", "+1", " 1", "1 ", "1.5h", "1w", "10M", "1h30m", "366d", "8761h",
          "999999999d", "99999999999999999999", "1\n"}) {
        EXPECT_FALSE(ParseDuration(text)) << '"' << text << '"';
    }
}

TEST(Duration, IsShownByItsTwoLargestUnits) {
    EXPECT_EQ(ToText(seconds(0)), "0s");
    EXPECT_EQ(ToText(seconds(59)), "59s");
    EXPECT_EQ(ToText(seconds(60)), "1m");
    EXPECT_EQ(ToText(seconds(598)), "9m58s");
    EXPECT_EQ(ToText(hours(24)), "1d");
    EXPECT_EQ(ToText(hours(7 * 24) - seconds(1)), "6d23h");
    EXPECT_EQ(ToText(hours(2) + seconds(5)), "2h");
}

}  // namespace
