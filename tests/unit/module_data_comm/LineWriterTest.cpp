#include "outputs/LineWriter.h"

#include "FileSizeLimit.h"
#include "PutLine.h"
#include "TestPipe.h"
#include "sdk/UniqueDescriptor.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

using Engine::LineWriter;

// For a reader that does not come.
constexpr std::chrono::milliseconds kShort{1};

TEST(LineWriterPipe, GetsWholeLines) {
    const TestPipe pipe;
    LineWriter writer(pipe.WriteEnd(), "pipe");
    EXPECT_EQ(PutLine(writer, "one"), "");
    EXPECT_EQ(PutLine(writer, ""), "");
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
    EXPECT_EQ(PutLine(writer, "line"), "Broken pipe");
}

TEST(LineWriterPipe, ThatIsFullIsWaitedForUntilTheDeadline) {
    const TestPipe pipe;
    pipe.Fill();
    LineWriter writer(pipe.WriteEnd(), "pipe");
    EXPECT_FALSE(writer.DeadlinePassed());
    writer.SetDeadline(std::chrono::steady_clock::now());
    EXPECT_TRUE(writer.DeadlinePassed());
    EXPECT_EQ(PutLine(writer, "line"), "Connection timed out");
}

TEST(LineWriterFile, ThatHadNoRoomForAWholeLineGetsTheNextOnALineOfItsOwn) {
    const TestSupport::TemporaryFolder folder;
    const std::string path = folder.Write("stdout", "");
    const SDK::UniqueDescriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    LineWriter writer(file.Get(), "stdout");
    EXPECT_EQ(PutLine(writer, "whole"), "");
    {
        const FileSizeLimit limit(10);
        EXPECT_EQ(PutLine(writer, "longer than the room that is left"), "File too large");
        EXPECT_EQ(PutLine(writer, "for which there is none"), "File too large");
    }
    EXPECT_EQ(PutLine(writer, "next"), "");
    EXPECT_EQ(PutLine(writer, "and next"), "");
    EXPECT_EQ(TestSupport::ReadText(path), "whole\nlong\nnext\nand next\n");
}

TEST(LineWriterFile, IsNotGivenAnEndOfALineTwice) {
    const TestSupport::TemporaryFolder folder;
    const std::string path = folder.Write("stdout", "");
    const SDK::UniqueDescriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    LineWriter writer(file.Get(), "stdout");
    {
        const FileSizeLimit limit(4);
        EXPECT_EQ(PutLine(writer, "torn one"), "File too large");
    }
    {
        const FileSizeLimit limit(5);
        EXPECT_EQ(PutLine(writer, "lost"), "File too large") << "there was room for the end only";
    }
    EXPECT_EQ(PutLine(writer, "next"), "");
    EXPECT_EQ(TestSupport::ReadText(path), "torn\nnext\n");
}

TEST(LineWriterPipe, ThatNobodyReadsIsTroubleAndKeepsItsLine) {
    const TestPipe pipe;
    pipe.Fill();
    LineWriter writer(pipe.WriteEnd(), "pipe", kShort);
    EXPECT_EQ(PutLine(writer, "line"), "nobody reads");
    EXPECT_TRUE(writer.ShouldRetry());
    EXPECT_EQ(PutLine(writer, "line"), "nobody reads") << "it is waited for again";
    pipe.Read();
    EXPECT_EQ(PutLine(writer, "line"), "");
    EXPECT_FALSE(writer.ShouldRetry());
    EXPECT_EQ(PutLine(writer, "next"), "");
    EXPECT_EQ(pipe.Read(), "line\nnext\n");
}

TEST(LineWriterPipe, ThatNobodyReadGetsOnlyTheRestOfTheLineWhenItIsReadAgain) {
    const TestPipe pipe;
    LineWriter writer(pipe.WriteEnd(), "pipe", kShort);
    const std::string line(200000, 'x');
    std::string seen;
    int stood = 0;
    for (; PutLine(writer, line) == "nobody reads"; ++stood) {
        seen += pipe.Read();
    }
    EXPECT_GT(stood, 1);
    EXPECT_EQ(PutLine(writer, "next"), "");
    EXPECT_EQ(seen + pipe.Read(), line + "\nnext\n");
}

TEST(LineWriterPipe, ThatNobodyReadIsNotTriedAgainAfterAnyOtherFailure) {
    TestPipe pipe;
    pipe.Fill();
    LineWriter writer(pipe.WriteEnd(), "pipe", kShort);
    EXPECT_EQ(PutLine(writer, "line"), "nobody reads");
    pipe.CloseReader();
    EXPECT_EQ(PutLine(writer, "line"), "Broken pipe");
    EXPECT_FALSE(writer.ShouldRetry());
}

TEST(LineWriterPipe, TakesALineLargerThanItself) {
    const TestPipe pipe;
    LineWriter writer(pipe.WriteEnd(), "pipe");
    const std::string line(1000000, 'x');
    std::string why;
    std::thread thread([&] { why = PutLine(writer, line); });
    std::string seen;
    while (seen.size() <= line.size()) {
        seen += pipe.Read();
    }
    thread.join();
    EXPECT_EQ(why, "");
    EXPECT_EQ(seen, line + '\n');
}

TEST(LineWriterPipe, ThatWasClosedFailsInsteadOfWaiting) {
    const int closed = ::dup(STDERR_FILENO);
    ::close(closed);
    LineWriter writer(closed, "nothing");
    EXPECT_EQ(PutLine(writer, "line"), "Bad file descriptor");
}

}  // namespace
