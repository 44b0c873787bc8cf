#include "ChildProgram.h"

#include "Interruption.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

namespace {

using Agent::ChildProgram;
using Stream = ChildProgram::Stream;
using Clock = std::chrono::steady_clock;

ChildProgram::Deadline Soon() { return Clock::now() + std::chrono::seconds(20); }

/// A shell that runs a script.
class Shell : public ChildProgram {
public:
    explicit Shell(const std::string& script) : ChildProgram("/bin/sh", {"sh", "-c", script}) {}
};

TEST(ChildProgram, IsTalkedToByLines) {
    Shell shell("while read line; do echo \"got $line\"; done");
    EXPECT_TRUE(shell.Write("one"));
    EXPECT_EQ(shell.ReadLine(Stream::OUTPUT, Soon()), "got one");
    EXPECT_TRUE(shell.Write("two"));
    EXPECT_EQ(shell.ReadLine(Stream::OUTPUT, Soon()), "got two");
}

TEST(ChildProgram, KeepsWhatComesOnTheOtherStream) {
    Shell shell("echo first >&2; echo second >&2; echo third");
    EXPECT_EQ(shell.ReadLine(Stream::OUTPUT, Soon()), "third");
    EXPECT_EQ(shell.ReadLine(Stream::ERRORS, Soon()), "first");
    EXPECT_EQ(shell.ReadLine(Stream::ERRORS, Soon()), "second");
}

TEST(ChildProgram, HasNoLineAtTheDeadlineNorAtTheEnd) {
    Shell silent("read line; exit 3");
    EXPECT_FALSE(silent.ReadLine(Stream::OUTPUT, Clock::now() + std::chrono::milliseconds(20)));
    EXPECT_FALSE(silent.Wait(Clock::now()));
    silent.Write("go");
    EXPECT_FALSE(silent.ReadLine(Stream::OUTPUT, Soon()));
    EXPECT_EQ(silent.Wait(Soon()), 3);
}

TEST(ChildProgram, IsWaitedForHoweverMuchItWrites) {
    Shell chatty("i=0; while [ $i -lt 20000 ]; do echo 0123456789; i=$((i+1)); done");
    EXPECT_EQ(chatty.Wait(Soon()), 0);
}

TEST(ChildProgram, ThatDoesNotExistEndsAtOnce) {
    ChildProgram missing("/no/such/program", {"program"});
    EXPECT_EQ(missing.Wait(Soon()), 127);
}

TEST(ChildProgram, ThatHasEndedTakesNoLine) {
    Shell ended("exit 0");
    EXPECT_EQ(ended.Wait(Soon()), 0);
    EXPECT_FALSE(ended.Write("hello"));
}

TEST(ChildProgram, MayWriteAfterItWasAskedToEnd) {
    Shell shell("trap 'echo last; exit 5' TERM; echo ready; while :; do read line; done");
    EXPECT_EQ(shell.ReadLine(Stream::OUTPUT, Soon()), "ready");
    shell.AskToEnd();
    EXPECT_EQ(shell.ReadLine(Stream::OUTPUT, Soon()), "last");
    EXPECT_EQ(shell.Wait(Soon()), 5);
}

TEST(ChildProgram, EndsHoweverEarlyItIsAskedTo) {
    // What this program would do about the signal must not count for the other.
    const Agent::Interruption interruption;
    for (int i = 0; i < 100; ++i) {
        Shell shell("read line");
        shell.AskToEnd();
        ASSERT_EQ(shell.Wait(Soon()), 128 + SIGTERM) << i;
    }
    EXPECT_FALSE(Agent::Interruption::Came());
}

TEST(ChildProgram, IsEndedByABrokenPipeThoughThisProgramIsNot) {
    const Agent::Interruption interruption;
    Shell shell("kill -PIPE $$; exit 3");
    EXPECT_EQ(shell.Wait(Soon()), 128 + SIGPIPE);
}

TEST(ChildProgram, TellsByItsDescriptorsThatSomethingCame) {
    Shell shell("read line; echo text >&2; read line");
    const std::array<int, 2> descriptors = shell.Descriptors();
    std::array<pollfd, 2> waited = {{{descriptors[0], POLLIN, 0}, {descriptors[1], POLLIN, 0}}};
    EXPECT_EQ(::poll(waited.data(), waited.size(), 0), 0);
    shell.Write("go");
    EXPECT_EQ(::poll(waited.data(), waited.size(), 20000), 1);
    EXPECT_EQ(waited[1].revents, POLLIN);
    EXPECT_EQ(shell.ReadLine(Stream::ERRORS, Soon()), "text");
    shell.Write("go");
    EXPECT_FALSE(shell.ReadLine(Stream::ERRORS, Soon()));
    EXPECT_EQ(shell.Descriptors()[1], -1);
}

TEST(ChildProgram, IsNotMeantByTheSignalsOfTheTerminal) {
    Shell shell("echo $$; read line");
    const std::string pid = shell.ReadLine(Stream::OUTPUT, Soon()).value_or("0");
    EXPECT_EQ(::getpgid(std::stoi(pid)), std::stoi(pid));
}

TEST(ChildProgram, IsTakenAlong) {
    std::string pid;
    {
        Shell shell("echo $$; exec sleep 1000");
        pid = shell.ReadLine(Stream::OUTPUT, Soon()).value_or("");
        ASSERT_FALSE(pid.empty());
        ASSERT_EQ(::kill(std::stoi(pid), 0), 0);
    }
    EXPECT_NE(::kill(std::stoi(pid), 0), 0);
}

}  // namespace
