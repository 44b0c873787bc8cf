#include "sdk/ProcessUtils.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace {

using SDK::ProcessUtils;

class ProcessUtilsTest : public testing::Test {
protected:
    ~ProcessUtilsTest() override { ProcessUtils::SetLookup(nullptr); }

    static bool Answer(int pid, ProcessUtils::procRecord& record) {
        record.m_status = {pid, 7, "from the table"};
        record.m_cmdline = "known command";
        return pid == 4711;
    }
};

TEST_F(ProcessUtilsTest, ReadsTheStatusOfALiveProcess) {
    ProcessUtils::procStatus status;
    ASSERT_EQ(ProcessUtils::GetProcessStatusInfo(::getpid(), status), 0);
    EXPECT_EQ(status.m_pid, ::getpid());
    EXPECT_EQ(status.m_ppid, ::getppid());
    EXPECT_FALSE(status.m_name.empty());
}

TEST_F(ProcessUtilsTest, ReadsNamesWithParenthesesAndBlanks) {
    char before[16] = {};
    ::prctl(PR_GET_NAME, before);
    ::prctl(PR_SET_NAME, ") S 1 (x");
    ProcessUtils::procStatus status;
    EXPECT_EQ(ProcessUtils::GetProcessStatusInfo(::getpid(), status), 0);
    ::prctl(PR_SET_NAME, before);
    EXPECT_EQ(status.m_name, ") S 1 (x");
    EXPECT_EQ(status.m_ppid, ::getppid());
}

TEST_F(ProcessUtilsTest, JoinsTheArgumentsByBlanks) {
    std::string cmdline;
    ASSERT_EQ(ProcessUtils::GetProcessCmdline(::getpid(), cmdline, 4096), 0);
    EXPECT_EQ(cmdline.find('\0'), std::string::npos);
    EXPECT_NE(cmdline.back(), ' ');
}

TEST_F(ProcessUtilsTest, CutsALongCommandLine) {
    std::string cmdline;
    ASSERT_EQ(ProcessUtils::GetProcessCmdline(::getpid(), cmdline, 3), 0);
    EXPECT_LE(cmdline.size(), 3U);
    ProcessUtils::SetLookup(Answer);
    ASSERT_EQ(ProcessUtils::GetProcessCmdline(4711, cmdline, 5), 0);
    EXPECT_EQ(cmdline, "known");
}

TEST_F(ProcessUtilsTest, KnowsNothingOfAProcessThatIsNot) {
    ProcessUtils::procStatus status{1, 2, "before"};
    std::string cmdline = "before";
    for (const int pid : {0, -1, 99999999}) {
        EXPECT_EQ(ProcessUtils::GetProcessStatusInfo(pid, status), -1);
        EXPECT_EQ(ProcessUtils::GetProcessCmdline(pid, cmdline, 4096), -1);
    }
    EXPECT_EQ(status.m_name, "before");
    EXPECT_EQ(cmdline, "before");
}

TEST_F(ProcessUtilsTest, AsksTheTableFirst) {
    ProcessUtils::SetLookup(Answer);
    ProcessUtils::procStatus status;
    std::string cmdline;
    EXPECT_EQ(ProcessUtils::GetProcessStatusInfo(4711, status), 0);
    EXPECT_EQ(status.m_name, "from the table");
    EXPECT_EQ(status.m_ppid, 7);
    EXPECT_EQ(ProcessUtils::GetProcessCmdline(4711, cmdline, 4096), 0);
    EXPECT_EQ(cmdline, "known command");
}

TEST_F(ProcessUtilsTest, AsksTheSystemForWhatTheTableDoesNotKnow) {
    ProcessUtils::SetLookup(Answer);
    ProcessUtils::procStatus status;
    EXPECT_EQ(ProcessUtils::GetProcessStatusInfo(::getpid(), status), 0);
    EXPECT_EQ(status.m_ppid, ::getppid());
}

TEST_F(ProcessUtilsTest, NobodyIsInsideATableThatWasTakenAway) {
    std::atomic<bool> alive{true};
    std::atomic<bool> done{false};
    std::thread asker([&done] {
        ProcessUtils::procStatus status;
        while (!done) {
            ProcessUtils::GetProcessStatusInfo(4711, status);
        }
    });
    for (int i = 0; i < 200; ++i) {
        alive = true;
        ProcessUtils::SetLookup([&alive](int, ProcessUtils::procRecord&) {
            EXPECT_TRUE(alive);
            return true;
        });
        ProcessUtils::SetLookup(nullptr);
        alive = false;
    }
    done = true;
    asker.join();
}

}  // namespace
