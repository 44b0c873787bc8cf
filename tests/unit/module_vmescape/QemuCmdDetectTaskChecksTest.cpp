#include "OpenCmdTask.h"
#include "support/CapturedLog.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace {

using TestSupport::CapturedLog;
using TestSupport::Process;
using TestSupport::ProcInfoPtr;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

/// Notes what would be sent.
class NotingCmdTask : public OpenCmdTask {
public:
    void SendAlarm(ProcInfoPtr info, const std::string& monitorProcess,
                   const std::string& escapeMode) override {
        m_sent.emplace_back(info->m_pid, monitorProcess, escapeMode);
    }
    std::vector<std::tuple<int, std::string, std::string>> m_sent;
};

using Sent = std::vector<std::tuple<int, std::string, std::string>>;

class CmdChecks : public testing::Test {
protected:
    CmdChecks() {
        m_task->Use({DENY_RULE});
        m_task->m_shellList = {"# comment", "/bin/sh", "/bin/bash", ""};
        m_task->UpdateMonitorProcessList(Process(100, "qemu-kvm", "qemu-kvm -name vm-01"));
    }

    /// Judges a child of the virtual machine.
    bool Child(const std::string& cmdline, const std::string& exePath = "") {
        const ProcInfoPtr info = Process(101, "child", cmdline, 100, "qemu-kvm", exePath);
        m_task->UpdateMonitorProcessList(info);
        return m_task->CheckSensitiveCmd(info);
    }

    CapturedLog m_log;
    Poco::AutoPtr<NotingCmdTask> m_task = new NotingCmdTask;
};

TEST_F(CmdChecks, AListedCommandIsSystemFork) {
    EXPECT_TRUE(Child("wget http://x", "/usr/bin/wget"));
    EXPECT_EQ(m_task->m_sent, (Sent{{101, "qemu-kvm", "system/fork"}}));
    EXPECT_EQ(m_log.Count(kDebug,
                          "Process(qemu-kvm\xEF\xBC\x8Cpid:100) system/fork sensitive "
                          "command(wget http://x,pid:101)"),
              1U);
}

TEST_F(CmdChecks, AShellThatIsNotListedIsShell) {
    EXPECT_TRUE(Child("/bin/bash"));
    EXPECT_EQ(m_task->m_sent, (Sent{{101, "qemu-kvm", "shell"}}));
    EXPECT_EQ(m_log.Count(kDebug, "Process(qemu-kvm\xEF\xBC\x8Cpid:100) start shell(/bin/bash)"),
              1U);
}

TEST_F(CmdChecks, AShellUnderAnAllowListIsSystemFork) {
    m_task->Use({ALLOW_RULE});
    EXPECT_TRUE(Child("/bin/bash", "/usr/bin/bash"));
    EXPECT_EQ(m_task->m_sent, (Sent{{101, "qemu-kvm", "system/fork"}}));
}

TEST_F(CmdChecks, AProgramBelowTmpIsForbiddenDir) {
    EXPECT_TRUE(Child("/tmp/x.sh"));
    EXPECT_EQ(m_task->m_sent, (Sent{{101, "qemu-kvm", "forbidden dir"}}));
    EXPECT_EQ(m_log.Count(kDebug,
                          "Process(qemu-kvm\xEF\xBC\x8Cpid:100) access cmd:/tmp/x.sh in "
                          "forbidden dir"),
              1U);
}

TEST_F(CmdChecks, AShellBelowTmpIsShell) {
    m_task->m_shellList = {"/tmp/sh"};
    EXPECT_TRUE(Child("/tmp/sh -c id"));
    EXPECT_EQ(m_task->m_sent, (Sent{{101, "qemu-kvm", "shell"}}));
    EXPECT_FALSE(m_log.Contains("forbidden dir"));
}

TEST_F(CmdChecks, AProgramBelowTmpUnderAnAllowListIsSystemFork) {
    m_task->Use({ALLOW_RULE});
    EXPECT_TRUE(Child("/tmp/x", "/tmp/x"));
    EXPECT_EQ(m_task->m_sent, (Sent{{101, "qemu-kvm", "system/fork"}}));
}

TEST_F(CmdChecks, AnOrdinaryCommandIsNoAlarm) {
    EXPECT_FALSE(Child("id", "/usr/bin/id"));
    EXPECT_TRUE(m_task->m_sent.empty());
}

TEST_F(CmdChecks, AnAllowedCommandIsNoAlarm) {
    m_task->Use({ALLOW_RULE});
    EXPECT_FALSE(Child("ok --now", "/usr/bin/ok"));
}

TEST_F(CmdChecks, TheMonitoredProgramItselfNeverAlarms) {
    EXPECT_FALSE(
        m_task->CheckSensitiveCmd(Process(102, "qemu-kvm", "/tmp/x", 100, "qemu-kvm", "/tmp/x")));
    EXPECT_EQ(m_log.Count(kDebug, "qemu-kvm is monitor process"), 1U);
}

TEST_F(CmdChecks, AGrandchildIsJudgedByTheRuleOfTheRoot) {
    Child("id");
    const ProcInfoPtr grandchild = Process(102, "wget", "wget", 101, "child");
    m_task->UpdateMonitorProcessList(grandchild);
    EXPECT_TRUE(m_task->CheckSensitiveCmd(grandchild));
    EXPECT_EQ(m_task->m_sent, (Sent{{102, "qemu-kvm", "system/fork"}}));
}

TEST_F(CmdChecks, AnUntrackedParentIsKnownByItsName) {
    EXPECT_TRUE(m_task->CheckSensitiveCmd(Process(900, "wget", "wget", 899, "qemu-kvm")));
    EXPECT_EQ(m_task->m_sent, (Sent{{900, "qemu-kvm", "system/fork"}}));
}

TEST_F(CmdChecks, ATrackedParentCountsBeforeTheRuleOfItsName) {
    m_task->Use({DENY_RULE, R"({"virtcmd":"swtpm","action":false,"cmdlist":["curl"]})"});
    m_task->UpdateMonitorProcessList(Process(101, "swtpm", "swtpm", 100, "qemu-kvm"));
    EXPECT_TRUE(m_task->CheckSensitiveCmd(Process(102, "wget", "wget", 101, "swtpm")));
    EXPECT_FALSE(m_task->CheckSensitiveCmd(Process(103, "curl", "curl", 101, "swtpm")));
    EXPECT_EQ(m_task->m_sent, (Sent{{102, "qemu-kvm", "system/fork"}}));
}

TEST_F(CmdChecks, AnUnrelatedProcessIsNoAlarm) {
    EXPECT_FALSE(m_task->CheckSensitiveCmd(Process(900, "wget", "wget", 899, "cron")));
    EXPECT_EQ(m_log.Count(kDebug,
                          "Check whether the parent process of process(900,wget) is in "
                          "monitor list"),
              1U);
    EXPECT_EQ(m_log.Count(kDebug, "The parent process of process(900,wget) is not in monitor list"),
              1U);
}

TEST_F(CmdChecks, ANullRecordIsNoAlarm) {
    std::string monitor;
    EXPECT_FALSE(m_task->CheckSensitiveCmd(ProcInfoPtr()));
    EXPECT_FALSE(m_task->CheckParentProcessIsInMonitorList(nullptr, monitor));
}

TEST_F(CmdChecks, WithoutAPolicyNoCommandIsSensitiveAndThatIsAnError) {
    OpenCmdTaskPtr bare = new OpenCmdTask;
    EXPECT_FALSE(bare->IsSensitiveCmd("qemu-kvm", "wget", "wget", ""));
    EXPECT_EQ(m_log.Texts(kError),
              std::vector<std::string>{
                  "m_featurePolicy is null pointer in QemuCmdDetectTask::IsSensitiveCmd"});
}

TEST_F(CmdChecks, AShellIsAPrefixOfTheCommandLine) {
    EXPECT_TRUE(m_task->IsShellCmd("/bin/sh -c id"));
    EXPECT_TRUE(m_task->IsShellCmd("/bin/shred x"));
    EXPECT_FALSE(m_task->IsShellCmd("/usr/bin/sh"));
    EXPECT_FALSE(m_task->IsShellCmd("/bin/s"));
    EXPECT_FALSE(m_task->IsShellCmd(""));
}

TEST_F(CmdChecks, AnEmptyShellLineNeverMatches) {
    m_task->m_shellList = {""};
    EXPECT_FALSE(m_task->IsShellCmd("anything"));
}

TEST_F(CmdChecks, ShellsThatAShellStartsAreBuiltIn) {
    m_task->m_shellList.clear();
    for (const char* shell : {"sh -c bash", "sh -c sh", "sh -c csh", "sh -c tcsh"}) {
        EXPECT_TRUE(m_task->IsShellCmd(shell)) << shell;
        EXPECT_TRUE(m_task->IsShellCmd(std::string(shell) + " -x")) << shell;
    }
    EXPECT_FALSE(m_task->IsShellCmd("sh -c zsh"));
    EXPECT_FALSE(m_task->IsShellCmd("sh -c bas"));
    EXPECT_FALSE(m_task->IsShellCmd("sh"));
}

TEST_F(CmdChecks, OnlyLinesThatBeginWithTmpAreForbidden) {
    EXPECT_TRUE(m_task->IsExecCmdInTmpDir("/tmp/x"));
    EXPECT_TRUE(m_task->IsExecCmdInTmpDir("/tmp/"));
    EXPECT_FALSE(m_task->IsExecCmdInTmpDir("/tmp"));
    EXPECT_FALSE(m_task->IsExecCmdInTmpDir("tmp/x"));
    EXPECT_FALSE(m_task->IsExecCmdInTmpDir("/var/tmp/x"));
}

TEST_F(CmdChecks, TheSystemShellsAreTheLinesOfTheirFile) {
    std::ifstream file("/etc/shells");
    ASSERT_TRUE(file.good());
    std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    m_task->GetSystemShellList();
    std::string joined;
    for (const std::string& line : m_task->m_shellList) {
        joined += line + '\n';
    }
    joined.pop_back();
    EXPECT_EQ(joined, content.substr(0, 4096));
    EXPECT_EQ(m_log.Count(kDebug, "Read system shell file(/etc/shells)"), 1U);
}

TEST_F(CmdChecks, ReadingTheShellsAgainDoesNotDoubleThem) {
    m_task->GetSystemShellList();
    const std::vector<std::string> once = m_task->m_shellList;
    m_task->GetSystemShellList();
    EXPECT_EQ(m_task->m_shellList, once);
}

}  // namespace
