#include "sdk/StrUtils.h"

#include <gtest/gtest.h>

namespace {

using SDK::StrUtils;
using Strings = std::vector<std::string>;

Strings Split(const std::string& text, const std::string& separator) {
    Strings pieces = {"left over"};
    StrUtils::Split(text, separator, pieces);
    return pieces;
}

TEST(Split, KeepsEmptyPieces) {
    EXPECT_EQ(Split(":1", ":"), (Strings{"", "1"}));
    EXPECT_EQ(Split("a,,b,", ","), (Strings{"a", "", "b", ""}));
    EXPECT_EQ(Split(",", ","), (Strings{"", ""}));
}

TEST(Split, GivesOneEmptyPieceForAnEmptyText) { EXPECT_EQ(Split("", ","), Strings{""}); }

TEST(Split, GivesTheWholeTextWithoutASeparator) {
    EXPECT_EQ(Split("a,b", ""), Strings{"a,b"});
    EXPECT_EQ(Split("a b", ","), Strings{"a b"});
}

TEST(Split, CutsAtLongSeparators) { EXPECT_EQ(Split("a--b---c", "--"), (Strings{"a", "b", "-c"})); }

std::string Trimmed(std::string text) {
    StrUtils::Trim(text);
    return text;
}

TEST(Trim, RemovesWhiteSpaceAtBothEnds) {
    EXPECT_EQ(Trimmed(" \t\r\n\v\fa b\f\v\n\r\t "), "a b");
    EXPECT_EQ(Trimmed("a"), "a");
    EXPECT_EQ(Trimmed(" \t "), "");
    EXPECT_EQ(Trimmed(""), "");
}

TEST(EscapeForTerminal, LeavesOrdinaryTextAlone) {
    EXPECT_EQ(StrUtils::EscapeForTerminal("plain text, caf\xC3\xA9 \xE4\xB8\xAD"),
              "plain text, caf\xC3\xA9 \xE4\xB8\xAD");
}

TEST(EscapeForTerminal, WritesControlCharactersAsEscapes) {
    EXPECT_EQ(StrUtils::EscapeForTerminal(std::string("a\n\x1b[31m\x7f\0b", 10)),
              R"(a\n\x1b[31m\x7f\x00b)");
    EXPECT_EQ(StrUtils::EscapeForTerminal("\xC2\x9B"), R"(\x9b)");  // a one-byte CSI in UTF-8
}

TEST(EscapeForTerminal, WritesDirectionOverridesAsEscapes) {
    EXPECT_EQ(StrUtils::EscapeForTerminal("\xE2\x80\xAE"), R"(\u202e)");
}

TEST(EscapeForTerminal, WritesBytesThatAreNotUtf8AsEscapes) {
    EXPECT_EQ(StrUtils::EscapeForTerminal("a\xff\xC3"), R"(a\xff\xc3)");
    EXPECT_EQ(StrUtils::EscapeForTerminal("\xE2\x80"), R"(\xe2\x80)");
}

}  // namespace
