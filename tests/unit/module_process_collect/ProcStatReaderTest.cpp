#include "ProcStatReader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

using ProcessCollect::ProcStat;
using ProcessCollect::ProcStatReader;

// A line of the kernel with the fields that are read: state, parent, threads, start (22), stack
// (28) and argument (48) marks.
std::string Line(const std::string& comm, const std::string& state = "S",
                 const std::string& threads = "3") {
    return "42 (" + comm + ") " + state + " 7 42 42 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 " + threads +
           " 0 1234 1 2 18446744073709551615 100 200 300 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0 400 500 "
           "600 700 800 900 0\n";
}

TEST(ProcStatReader, ReadsTheFieldsByTheirPlace) {
    ProcStat stat;
    ASSERT_TRUE(ProcStatReader::Parse(Line("sleep"), stat));
    EXPECT_EQ(stat.m_comm, "sleep");
    EXPECT_EQ(stat.m_state, 'S');
    EXPECT_EQ(stat.m_parentPid, 7);
    EXPECT_EQ(stat.m_threads, 3);
    EXPECT_EQ(stat.m_startTime, 1234 * ProcStatReader::TickNanoseconds());
    EXPECT_EQ(stat.m_marks.m_stackStart, 300U);
    EXPECT_EQ(stat.m_marks.m_argumentStart, 700U);
}

TEST(ProcStatReader, NameMayHoldParenthesesAndBlanks) {
    ProcStat stat;
    ASSERT_TRUE(ProcStatReader::Parse(Line(") R 1 (x y)"), stat));
    EXPECT_EQ(stat.m_comm, ") R 1 (x y)");
    EXPECT_EQ(stat.m_parentPid, 7);
}

TEST(ProcStatReader, NameMayBeEmpty) {
    ProcStat stat;
    ASSERT_TRUE(ProcStatReader::Parse(Line(""), stat));
    EXPECT_EQ(stat.m_comm, "");
}

TEST(ProcStatReader, MalformedTextChangesNothing) {
    const std::string line = Line("sleep");
    ProcStat stat;
    stat.m_comm = "before";
    for (const std::string& text :
         {std::string(), std::string("42"), std::string("42 (sleep"), std::string(") 42 ("),
          line.substr(0, 60), Line("sleep", "SS"), Line("sleep", "S", "x"),
          Line("sleep", "S", "3x"), Line("sleep", "S", "99999999999999999999")}) {
        EXPECT_FALSE(ProcStatReader::Parse(text, stat)) << text;
    }
    EXPECT_EQ(stat.m_comm, "before");
}

TEST(ProcStatReader, EveryCutOfALineIsRefusedOrRead) {
    const std::string line = Line("sleep");
    for (std::size_t length = 0; length < line.size(); ++length) {
        ProcStat stat;
        if (ProcStatReader::Parse(line.substr(0, length), stat)) {
            EXPECT_EQ(stat.m_comm, "sleep");
            EXPECT_EQ(stat.m_parentPid, 7);
        }
    }
}

TEST(ProcStatReader, ZombieIsDeadUnlessThreadsLiveOn) {
    ProcStat stat;
    ASSERT_TRUE(ProcStatReader::Parse(Line("a", "Z", "1"), stat));
    EXPECT_FALSE(stat.Alive());
    ASSERT_TRUE(ProcStatReader::Parse(Line("a", "X", "0"), stat));
    EXPECT_FALSE(stat.Alive());
    ASSERT_TRUE(ProcStatReader::Parse(Line("a", "Z", "2"), stat));
    EXPECT_TRUE(stat.Alive());
    ASSERT_TRUE(ProcStatReader::Parse(Line("a", "D", "1"), stat));
    EXPECT_TRUE(stat.Alive());
}

TEST(ProcStatReader, ReadsThisProcess) {
    ProcStat stat;
    ASSERT_TRUE(ProcStatReader::Read(::getpid(), stat));
    EXPECT_EQ(stat.m_parentPid, ::getppid());
    EXPECT_TRUE(stat.Alive());
    EXPECT_NE(stat.m_startTime, 0U);
    EXPECT_TRUE(stat.m_marks.Known());
}

TEST(ProcStatReader, UnknownProcessIsRefused) {
    ProcStat stat;
    EXPECT_FALSE(ProcStatReader::Read(-1, stat));
}

}  // namespace
