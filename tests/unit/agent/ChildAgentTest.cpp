#include "ChildAgent.h"

#include "ExitCode.h"
#include "Interruption.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <thread>

namespace {

using Agent::ChildAgent;
using std::chrono::seconds;

/// A script in the agent's place.
class StandIn {
public:
    explicit StandIn(const std::string& script)
        : m_path(m_folder.Write("agent", "#!/bin/sh\n" + script)) {
        EXPECT_EQ(::chmod(m_path.c_str(), S_IRWXU), 0);
    }

    /// Starts it and waits.
    int Wait(bool directories, seconds patience = seconds(20)) {
        const ChildAgent::Setup setup{m_path, "POLICIES", 2, directories, "STATUS", {"-o", "a=b"}};
        m_agent = std::make_unique<ChildAgent>(setup);
        testing::internal::CaptureStderr();
        const int code = m_agent->WaitUntilItWatches(patience, m_wrong);
        m_errors = testing::internal::GetCapturedStderr();
        return code;
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path;
    std::unique_ptr<ChildAgent> m_agent;
    std::string m_wrong;
    std::string m_errors;
};

TEST(ChildAgent, WatchesOnceItSaysBoth) {
    StandIn agent(
        "echo 'vmescape-agent 1 is running, 2 policies read from x' >&2\n"
        "echo '3 directories are watched.' >&2; read line; echo $line\n");
    EXPECT_EQ(agent.Wait(true), Agent::EXIT_GOOD);
    EXPECT_EQ(agent.m_wrong, "");
    EXPECT_EQ(agent.m_errors, "");
    EXPECT_TRUE(agent.m_agent->Program().Write("alarm"));
    EXPECT_EQ(agent.m_agent->Program().ReadLine(Agent::ChildProgram::Stream::OUTPUT,
                                                std::chrono::steady_clock::now() + seconds(20)),
              "alarm");
}

TEST(ChildAgent, IsNotWaitedForWhenItHasNoDirectories) {
    StandIn agent("echo 'vmescape-agent 1 is running, 2 policies read from x' >&2; read line\n");
    EXPECT_EQ(agent.Wait(false), Agent::EXIT_GOOD);
}

TEST(ChildAgent, IsNotWaitedForWhenItGoesOnWithoutFiles) {
    for (const std::string why :
         {"is optional and does not start(-1), the agent goes on without it",
          "is optional, the agent goes on without it"}) {
        StandIn agent(
            "echo 'Module(filenotify_module) " + why +
            "' >&2\n"
            "echo 'vmescape-agent 1 is running, 2 policies read from x' >&2; read line\n");
        EXPECT_EQ(agent.Wait(true), Agent::EXIT_GOOD) << why;
        EXPECT_TRUE(agent.m_agent->MissesFiles()) << why;
        EXPECT_EQ(agent.Wait(false), Agent::EXIT_GOOD);
        EXPECT_FALSE(agent.m_agent->MissesFiles()) << "it was to watch none";
    }
}

TEST(ChildAgent, IsWaitedForWhenItGoesOnWithoutAnotherModule) {
    StandIn agent(
        "echo 'Module(net_collect_module) is optional, the agent goes on without it' >&2\n"
        "echo 'vmescape-agent 1 is running, 2 policies read from x' >&2\n"
        "echo '3 directories are watched.' >&2; read line\n");
    EXPECT_EQ(agent.Wait(true), Agent::EXIT_GOOD);
    EXPECT_FALSE(agent.m_agent->MissesFiles());
}

TEST(ChildAgent, LeavesTimeForSomethingElseWhileItStarts) {
    StandIn agent(
        "read go\n"
        "echo 'vmescape-agent 1 is running, 2 policies read from x' >&2; read line\n");
    const Agent::ChildAgent::Setup setup{agent.m_path, "POLICIES", 2, false, "STATUS"};
    ChildAgent starting(setup);
    std::string wrong;
    EXPECT_EQ(starting.WaitUntilItWatches(seconds(20), wrong,
                                          [&starting] { starting.Program().Write("go"); }),
              Agent::EXIT_GOOD);
}

TEST(ChildAgent, HasNotStartedWithoutItsPolicies) {
    StandIn agent(
        "echo 'vmescape-agent 1 is running, 1 policies read from x' >&2\n"
        "echo '3 directories are watched.' >&2; exit 4\n");
    EXPECT_EQ(agent.Wait(true), Agent::EXIT_PRIVILEGE);
    EXPECT_EQ(agent.m_wrong, "the agent did not start");
    EXPECT_NE(agent.m_errors.find("1 policies read"), std::string::npos) << agent.m_errors;
}

TEST(ChildAgent, FailsWhenItEndsWithoutAnError) {
    StandIn agent("exit 0\n");
    EXPECT_EQ(agent.Wait(true), Agent::EXIT_FAILED);
}

TEST(ChildAgent, FailsWhenItDoesNotSayInTime) {
    StandIn agent("echo '3 directories are watched.' >&2; read line; exit 4\n");
    EXPECT_EQ(agent.Wait(true, seconds(0)), Agent::EXIT_FAILED);
    EXPECT_EQ(agent.m_wrong, "the agent did not start");
}

TEST(ChildAgent, IsNotWaitedForAfterAnInterruption) {
    const Agent::Interruption interruption;
    StandIn agent("kill -TERM $PPID; read line\n");
    EXPECT_EQ(agent.Wait(true), Agent::EXIT_FAILED);
    EXPECT_EQ(agent.m_wrong, "interrupted");
    EXPECT_EQ(agent.m_errors, "");
}

TEST(ChildAgent, IsNotWaitedForWhenTheInterruptionCameBefore) {
    const Agent::Interruption interruption;
    ::raise(SIGTERM);
    StandIn silent("read line\n");
    EXPECT_EQ(silent.Wait(true), Agent::EXIT_FAILED);
    EXPECT_EQ(silent.m_wrong, "interrupted");
    StandIn ready(
        "echo 'vmescape-agent 1 is running, 2 policies read from x' >&2\n"
        "echo '3 directories are watched.' >&2; read line\n");
    EXPECT_EQ(ready.Wait(true), Agent::EXIT_FAILED);
    EXPECT_EQ(ready.m_wrong, "interrupted");
}

TEST(ChildAgent, IsGivenItsFolderItsStatusAndMoreButNoRecording) {
    StandIn agent("echo \"$*\" >&2; exit 0\n");
    agent.Wait(true);
    EXPECT_EQ(agent.m_errors,
              "run -o a=b --policies POLICIES --output json:stdout --log-level information -o "
              "status.socket=STATUS -o record.file=\n");
}

}  // namespace
