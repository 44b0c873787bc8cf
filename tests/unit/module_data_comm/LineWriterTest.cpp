#include "LineWriter.h"

#include "TestPipe.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

using Engine::LineWriter;
using TestSupport::ReadText;

std::string g_why;  // why the last line could not be written

bool Put(LineWriter& writer, const std::string& line) {
    return writer.Write({{"", line}}, g_why) == 1;
}

/// Files of this process cannot grow beyond a size while it lives.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit{bytes, m_before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { ::setrlimit(RLIMIT_FSIZE, &m_before); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_before{};
};

class LineWriterFile : public testing::Test {
protected:
    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "alarms";
};

TEST_F(LineWriterFile, IsAppendedTo) {
    m_folder.Write("alarms", "old\n");
    const auto writer = LineWriter::OpenFile(m_path);
    ASSERT_NE(writer, nullptr);
    EXPECT_TRUE(Put(*writer, "one"));
    EXPECT_TRUE(Put(*writer, "two"));
    EXPECT_EQ(ReadText(m_path), "old\none\ntwo\n");
}

TEST_F(LineWriterFile, IsNotForEveryonesEyes) {
    const auto writer = LineWriter::OpenFile(m_path);
    struct stat status {};
    ASSERT_EQ(::stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U & ~0640U, 0U);
}

TEST_F(LineWriterFile, ThatCannotBeOpenedIsLoggedWithTheReason) {
    EXPECT_EQ(LineWriter::OpenFile(m_folder / "missing/alarms"), nullptr);
    EXPECT_TRUE(m_log.Contains("missing/alarms) cannot be opened: No such file or directory"));
}

TEST_F(LineWriterFile, ThatIsANamedPipeWithoutReaderIsRefusedAtOnce) {
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);
    EXPECT_EQ(LineWriter::OpenFile(m_path), nullptr);
    EXPECT_TRUE(m_log.Contains("cannot be opened: No such device or address"));
}

TEST_F(LineWriterFile, NeverHoldsATornLine) {
    const auto writer = LineWriter::OpenFile(m_path);
    ASSERT_NE(writer, nullptr);
    ASSERT_TRUE(Put(*writer, "whole"));
    {
        const FileSizeLimit limit(10);
        EXPECT_FALSE(Put(*writer, "longer than the room that is left"));
        EXPECT_EQ(g_why, "File too large");
    }
    EXPECT_EQ(ReadText(m_path), "whole\n");
    EXPECT_TRUE(Put(*writer, "next"));
    EXPECT_EQ(ReadText(m_path), "whole\nnext\n");
}

TEST_F(LineWriterFile, OnAFullDiskFailsWithTheReason) {
    const auto writer = LineWriter::OpenFile("/dev/full");
    ASSERT_NE(writer, nullptr);
    EXPECT_FALSE(Put(*writer, "line"));
    EXPECT_EQ(g_why, "No space left on device");
}

TEST_F(LineWriterFile, ThatWasRotatedAwayIsMadeAnew) {
    const auto writer = LineWriter::OpenFile(m_path);
    ASSERT_NE(writer, nullptr);
    ASSERT_TRUE(Put(*writer, "before"));
    ASSERT_EQ(std::rename(m_path.c_str(), (m_path + ".1").c_str()), 0);
    EXPECT_TRUE(Put(*writer, "after"));
    EXPECT_EQ(ReadText(m_path + ".1"), "before\n");
    EXPECT_EQ(ReadText(m_path), "after\n");
    EXPECT_TRUE(m_log.Contains("was moved away, it is made anew"));
}

TEST_F(LineWriterFile, KeepsTakingLinesWhenItsFolderIsGone) {
    TestSupport::TemporaryFolder other;
    const auto writer = LineWriter::OpenFile(other / "alarms");
    ASSERT_NE(writer, nullptr);
    ASSERT_EQ(std::rename(other.Path().c_str(), (m_folder / "moved").c_str()), 0);
    EXPECT_TRUE(Put(*writer, "line"));
    EXPECT_EQ(ReadText(m_folder / "moved/alarms"), "line\n");
}

TEST(LineWriterPipe, GetsWholeLines) {
    const TestPipe pipe;
    LineWriter writer(pipe.WriteEnd(), "pipe");
    EXPECT_TRUE(Put(writer, "one"));
    EXPECT_TRUE(Put(writer, ""));
    EXPECT_EQ(pipe.Read(), "one\n\n");
    EXPECT_FALSE(writer.IsTerminal());
}

TEST(LineWriterTerminal, IsKnownAsOne) {
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal, 0);
    EXPECT_TRUE(LineWriter(terminal, "terminal").IsTerminal());
    ::close(terminal);
}

TEST(LineWriterPipe, WithoutReaderFailsWithTheReason) {
    TestPipe pipe;
    LineWriter writer(pipe.WriteEnd(), "pipe");
    pipe.CloseReader();
    EXPECT_FALSE(Put(writer, "line"));
    EXPECT_EQ(g_why, "Broken pipe");
}

TEST(LineWriterPipe, ThatIsFullIsWaitedForUntilTheDeadline) {
    const TestPipe pipe;
    pipe.Fill();
    LineWriter writer(pipe.WriteEnd(), "pipe");
    EXPECT_FALSE(writer.DeadlinePassed());
    writer.SetDeadline(std::chrono::steady_clock::now());
    EXPECT_TRUE(writer.DeadlinePassed());
    EXPECT_FALSE(Put(writer, "line"));
    EXPECT_EQ(g_why, "Connection timed out");
}

TEST(LineWriterPipe, TakesALineLargerThanItself) {
    const TestPipe pipe;
    LineWriter writer(pipe.WriteEnd(), "pipe");
    const std::string line(1000000, 'x');
    bool written = false;
    std::thread thread([&] { written = Put(writer, line); });
    std::string seen;
    while (seen.size() <= line.size()) {
        seen += pipe.Read();
    }
    thread.join();
    EXPECT_TRUE(written);
    EXPECT_EQ(seen, line + '\n');
}

TEST(LineWriterPipe, ThatWasClosedFailsInsteadOfWaiting) {
    const int closed = ::dup(STDERR_FILENO);
    ::close(closed);
    LineWriter writer(closed, "nothing");
    EXPECT_FALSE(Put(writer, "line"));
    EXPECT_EQ(g_why, "Bad file descriptor");
}

}  // namespace
