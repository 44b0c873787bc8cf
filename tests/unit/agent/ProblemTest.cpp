#include "Problem.h"

#include <gtest/gtest.h>

namespace {

using Agent::FirstError;
using Agent::HasErrors;
using Agent::Pointer;
using Agent::Problem;
using Agent::ToText;

TEST(Problem, ReadsAsFilePlaceAndText) {
    EXPECT_EQ(ToText({"a.json", "/content", "expected an object, found nothing"}),
              "a.json: /content: expected an object, found nothing");
}

TEST(Problem, OfTheWholeFileNamesNoPlace) {
    EXPECT_EQ(ToText({"a.json", "", "cannot be read"}), "a.json: cannot be read");
}

TEST(Problem, ThatIsAWarningSaysSo) {
    EXPECT_EQ(ToText({"a.json", "/x", "unknown key", true}), "a.json: /x: warning: unknown key");
}

TEST(Problem, CannotMoveTheCursor) {
    EXPECT_EQ(ToText({"a\n.json", "/\x1b[2J", "found \"\x07\""}),
              "a\\n.json: /\\x1b[2J: found \"\\x07\"");
}

TEST(Problem, WarningsAloneAreNoErrors) {
    EXPECT_FALSE(HasErrors({}));
    EXPECT_FALSE(HasErrors({{"", "", "", true}}));
    EXPECT_TRUE(HasErrors({{"", "", "", true}, {"", "", "", false}}));
}

TEST(Problem, ThatCountsIsTheFirstThatIsNoWarning) {
    EXPECT_EQ(FirstError({}), "");
    EXPECT_EQ(FirstError({{"a", "", "hint", true}}), "");
    EXPECT_EQ(FirstError({{"a", "", "hint", true}, {"a", "/b", "one"}, {"a", "", "two"}}),
              "a: /b: one");
}

TEST(Problem, PointersEscapeTheirOwnCharacters) {
    EXPECT_EQ(Pointer("/a", "b"), "/a/b");
    EXPECT_EQ(Pointer("", "x/y~z"), "/x~1y~0z");
}

}  // namespace
