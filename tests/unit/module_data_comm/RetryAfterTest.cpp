#include "outputs/RetryAfter.h"

#include <Poco/DateTime.h>
#include <gtest/gtest.h>

namespace {

using Engine::RetryAfter;
using std::chrono::seconds;

// Sun, 06 Nov 1994 08:49:37 GMT, the date of RFC 9110, and a minute before it.
const Poco::Timestamp kDate = Poco::DateTime(1994, 11, 6, 8, 49, 37).timestamp();
const Poco::Timestamp kMinuteBefore = Poco::DateTime(1994, 11, 6, 8, 48, 37).timestamp();

TEST(RetryAfter, MayBeSeconds) {
    EXPECT_EQ(RetryAfter::Parse("0", kDate), seconds(0));
    EXPECT_EQ(RetryAfter::Parse("120", kDate), seconds(120));
}

TEST(RetryAfter, MayBeADateInAnyFormOfTheProtocol) {
    for (const char* date : {"Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT",
                             "Sun Nov  6 08:49:37 1994"}) {
        EXPECT_EQ(RetryAfter::Parse(date, kMinuteBefore), seconds(60)) << date;
    }
}

TEST(RetryAfter, IsNothingWhenTheDateHasPassed) {
    EXPECT_EQ(RetryAfter::Parse("Sun, 06 Nov 1994 08:49:36 GMT", kDate), seconds(0));
    EXPECT_EQ(RetryAfter::Parse("Sun, 06 Nov 1994 08:49:37 GMT", kDate), seconds(0));
}

TEST(RetryAfter, IsFiveMinutesAtTheMost) {
    for (const char* value :
         {"300", "301", "86400", "99999999999999999999999999", "Sun, 06 Nov 2094 08:49:37 GMT"}) {
        EXPECT_EQ(RetryAfter::Parse(value, kDate), seconds(300)) << value;
    }
    EXPECT_EQ(RetryAfter::Parse("299", kDate), seconds(299));
}

TEST(RetryAfter, IsNothingWhenItIsNotUnderstood) {
    for (const char* value : {"", " ", "soon", "-5", "1.5", "5 minutes", "Sun, 99 Nov 2094"}) {
        EXPECT_EQ(RetryAfter::Parse(value, kDate), seconds(0)) << value;
    }
}

TEST(RetryAfter, WaitsForTheWholeOfASecondThatHasBegun) {
    EXPECT_EQ(RetryAfter::Parse("Sun, 06 Nov 1994 08:49:37 GMT", kDate - 1), seconds(1));
}

}  // namespace
