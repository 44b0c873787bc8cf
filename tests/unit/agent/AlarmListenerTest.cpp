#include "AlarmListener.h"

#include "ExitCode.h"
#include "StatusServer.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <thread>

namespace {

using Agent::AlarmListener;
using Texts = std::set<std::string>;

constexpr const char* kRunning = "echo 'it is running, 1 policies read' >&2\n";

class Listener : public testing::Test {
protected:
    /// Starts a script in the agent's place, and waits until it says that it runs.
    void Start(const std::string& script, bool directories = false) {
        const std::string program =
            m_folder.Write("agent", std::string("#!/bin/sh\n") + kRunning + script);
        ASSERT_EQ(::chmod(program.c_str(), S_IRWXU), 0);
        m_listener = std::make_unique<AlarmListener>(
            Agent::ChildAgent::Setup{program, "", 1, directories, m_folder / "status"},
            [this](const Json::Value& alarm) {
                m_alarms.push_back(alarm["n"].asInt());
                return m_alarms.back() > 0;
            });
        std::string wrong;
        ASSERT_EQ(m_listener->WaitUntilItWatches(std::chrono::seconds(20), wrong),
                  Agent::EXIT_GOOD);
    }

    /// Waits for that many alarms, as whoever listens does.
    bool WaitFor(std::size_t count) {
        return TestSupport::WaitUntil([&] {
            m_listener->TakeWhatCame();
            if (m_alarms.size() >= count) {
                return true;
            }
            std::vector<pollfd> waited;
            m_listener->AddDescriptors(waited);
            EXPECT_EQ(waited.size(), 2U);
            ::poll(waited.data(), waited.size(), 20000);
            return false;
        });
    }

    /// Answers as the agent would, while the listener asks.
    void Answer(const std::string& status) {
        Agent::StatusServer server;
        ASSERT_EQ(server.Open(m_folder / "status"), "");
        std::atomic<bool> asked = false;
        std::thread agent([&] {
            while (!asked) {
                server.Answer([&](const std::string&) { return status; });
            }
        });
        m_listener->AskHowItIs();
        asked = true;
        agent.join();
    }

    TestSupport::TemporaryFolder m_folder;
    std::unique_ptr<AlarmListener> m_listener;
    std::vector<int> m_alarms;
};

TEST_F(Listener, TakesAlarms) {
    Start("echo '{\"n\":1}'; echo '{\"n\":2}'; read line\n");
    EXPECT_TRUE(WaitFor(2));
    EXPECT_EQ(m_alarms, (std::vector<int>{1, 2}));
    EXPECT_FALSE(m_listener->HasEnded());
    EXPECT_EQ(m_listener->Missed(), Texts{});
}

TEST_F(Listener, TakesAlarmsThatTheAgentKeepsToItself) {
    Start(
        "echo '2026 Information x: Repeat Alarm: {\"n\":3}' >&2; echo 'other line' >&2; read l\n");
    EXPECT_TRUE(WaitFor(1));
    EXPECT_EQ(m_alarms, std::vector<int>{3});
}

TEST_F(Listener, TakesMoreThanItReadsAtOnceFromBothStreams) {
    Start(
        "i=0; while [ $i -lt 3000 ]; do echo '{\"n\":1}'; echo 'Repeat Alarm: {\"n\":2}' >&2;"
        " i=$((i+1)); done; read line\n");
    EXPECT_TRUE(WaitFor(6000));
    EXPECT_EQ(m_alarms.size(), 6000U);
}

TEST_F(Listener, NotesWhatItDoesNotUnderstand) {
    Start("echo '{\"n\":'; echo '{\"n\":-1}'; read line\n");
    EXPECT_TRUE(WaitFor(1));
    EXPECT_EQ(m_listener->Missed(), Texts{"an alarm could not be understood: {\"n\":-1}"});
}

TEST_F(Listener, NotesThatLinesOfTheLogWereLost) {
    Start("echo '(7 lines were lost)' >&2; echo '{\"n\":1}'; read line\n");
    EXPECT_TRUE(WaitFor(1));
    m_listener->Stop();
    EXPECT_EQ(m_listener->Missed(),
              Texts{"lines of the agent's log were lost, which tell of repeated alarms"});
}

TEST_F(Listener, NotesThatTheAgentEnded) {
    Start("echo '{\"n\":1}'; echo 'last words' >&2; exit 7\n");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return m_listener->HasEnded(); }));
    EXPECT_TRUE(m_listener->HasEnded());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "last words\n");
    EXPECT_EQ(m_alarms, std::vector<int>{1});
    EXPECT_EQ(m_listener->Missed(),
              Texts{"the agent ended before the time was over, with status 7"});
}

TEST_F(Listener, NotesLossesAndTroubles) {
    Start("read line\n");
    Answer(R"({"state":"degraded","reasons":["no BPF"],
        "books":[{"name":"process_events","lost":{"behind":1,"in_kernel":0,"other":2}},
                 {"name":"file_events","lost":{"times_in_kernel":0}}],
        "tasks":[{"name":"a_task","lost":0},{"name":"b_task","lost":5}]})");
    Answer(R"({"state":"up","reasons":[],"tasks":[{"name":"b_task","lost":6}],"books":[]})");
    EXPECT_EQ(m_listener->Missed(),
              (Texts{"the agent was degraded: no BPF",
                     "process_events were lost: behind 1, other 2", "b_task lost 6 messages"}));
}

TEST_F(Listener, NotesThatTheAgentWatchesNoFiles) {
    Start(
        "echo 'Module(filenotify_module) is optional, the agent goes on without it' >&2\n"
        "read line\n",
        true);
    EXPECT_EQ(m_listener->Missed(),
              Texts{"files were not learned: filenotify_module is optional, and the agent runs "
                    "without it"});
}

TEST_F(Listener, NotesThatNobodyAnswers) {
    Start("read line\n");
    m_listener->AskHowItIs();
    ASSERT_EQ(m_listener->Missed().size(), 1U);
    EXPECT_EQ(m_listener->Missed().begin()->rfind("the agent could not be asked for its losses", 0),
              0U);
}

TEST_F(Listener, TakesWhatIsWrittenAtTheEnd) {
    Start(
        "trap 'echo \"{\\\"n\\\":9}\"; exit 0' TERM; echo '{\"n\":1}'\n"
        "while :; do read line || exit 1; done\n");
    EXPECT_TRUE(WaitFor(1));
    m_listener->Stop();
    EXPECT_EQ(m_alarms, (std::vector<int>{1, 9}));
    EXPECT_EQ(m_listener->Missed(), Texts{});
}

}  // namespace
