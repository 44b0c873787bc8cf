#include "OpenFileTask.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "support/BurnTime.h"
#include "support/CapturedLog.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using TestSupport::CapturedLog;
using TestSupport::Process;
using Pids = std::map<int, std::string>;
using Strings = std::vector<std::string>;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

// No process of this host has it: pid_max is at most 2^22.
constexpr int kNobody = 1 << 23;

class FileTracking : public testing::Test {
protected:
    FileTracking() {
        m_task->Use(FilePolicy({}));
        m_log.Clear();
    }

    bool CheckSelf(int pid) {
        m_name.clear();
        m_ppid = -7;
        return m_task->CheckProcessIsInMonitorList(pid, m_name, m_ppid);
    }
    bool CheckParent(int ppid) {
        m_name.clear();
        return m_task->CheckParentProcessIsInMonitorList(ppid, m_name);
    }
    /// From now on the first look-up alone finds a process, whichever it asks for.
    static void AnswerOnce() {
        SDK::ProcessUtils::SetLookup(
            [asked = 0](int pid, SDK::ProcessUtils::procRecord& record) mutable {
                record = {{pid, 1, "qemu-kvm"}, "qemu-kvm"};
                return asked++ == 0;
            });
    }
    std::size_t Lines(const std::string& text) { return m_log.Count(kDebug, text); }

    TestSupport::ScriptedAgent m_agent;
    ScriptedProcesses m_processes;
    CapturedLog m_log;
    OpenFileTaskPtr m_task = new OpenFileTask;
    std::string m_name;
    int m_ppid = 0;
};

TEST_F(FileTracking, TakesTheMonitoredProcessesOutOfTheList) {
    m_agent.Full().Add(Process(300, "qemu-kvm", "third"));
    m_agent.Full().Add(Process(100, "qemu-kvm", "first"));
    m_agent.Full().Add(Process(200, "bash", "bash"));
    EXPECT_TRUE(m_task->ProcessFullProcessInfo());
    EXPECT_EQ(m_task->m_monitorPidMap, (Pids{{100, "qemu-kvm"}, {300, "qemu-kvm"}}));
    EXPECT_EQ(m_task->m_monitorCmdlineMap,
              (std::map<std::string, std::string>{{"qemu-kvm", "first"}}))
        << "the lowest pid's";
    EXPECT_EQ(Lines("MonitorProcessList add process(pid:100,name:qemu-kvm)"), 1U);
}

TEST_F(FileTracking, ForgetsWhatWasLearntOnDemandWithTheNextList) {
    m_task->m_monitorPidMap[7] = "qemu-kvm";
    m_task->m_monitorCmdlineMap["qemu-kvm"] = "old";
    m_agent.Full().Add(Process(100, "qemu-kvm", "new"));
    EXPECT_TRUE(m_task->ProcessFullProcessInfo());
    EXPECT_EQ(m_task->m_monitorPidMap.count(7), 0U);
    EXPECT_EQ(m_task->m_monitorCmdlineMap["qemu-kvm"], "new");
}

TEST_F(FileTracking, LeavesEverythingAsItIsWhenTheListIsEmpty) {
    m_task->m_monitorPidMap[7] = "qemu-kvm";
    EXPECT_FALSE(m_task->ProcessFullProcessInfo());
    EXPECT_EQ(m_task->m_monitorPidMap.count(7), 1U);
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(FileTracking, SaysThatThereIsNoCollector) {
    m_agent.Engine().UnRegisterTask("procs_full_task");
    EXPECT_FALSE(m_task->ProcessFullProcessInfo());
    EXPECT_EQ(m_log.Texts(kError), Strings{"procsTask is null"});
}

TEST_F(FileTracking, SkipsAPlaceInTheListThatIsEmpty) {
    Engine::QemuFileDetectTask::ProcInfoMap procs{{1, nullptr}, {2, Process(2, "qemu-kvm", "x")}};
    m_task->UpdateMonitorProcessList(procs);
    EXPECT_EQ(m_log.Texts(kError), Strings{"Iter second is null ptr in UpdateMonitorProcessList"});
    EXPECT_EQ(m_task->m_monitorPidMap.size(), 1U);
}

TEST_F(FileTracking, TakesThePidOutOfTheRecordAndNotItsPlaceInTheList) {
    Engine::QemuFileDetectTask::ProcInfoMap procs{{1, Process(2, "qemu-kvm", "x")}};
    m_task->UpdateMonitorProcessList(procs);
    EXPECT_EQ(m_task->m_monitorPidMap, (Pids{{2, "qemu-kvm"}}));
    EXPECT_EQ(Lines("MonitorProcessList add process(pid:2,name:qemu-kvm)"), 1U);
}

TEST_F(FileTracking, KnowsAProcessOfTheListWithoutALookUp) {
    m_task->m_monitorPidMap[100] = "qemu-kvm";
    EXPECT_TRUE(CheckSelf(100));
    EXPECT_EQ(m_name, "qemu-kvm");
    EXPECT_EQ(m_ppid, -7) << "not touched";
    EXPECT_EQ(m_processes.Lookups(), 0);
}

TEST_F(FileTracking, LearnsAMonitoredProcessThatStartedLater) {
    m_processes.Add(100, "qemu-kvm", 1, "qemu-kvm -name vm-01");
    EXPECT_TRUE(CheckSelf(100));
    EXPECT_EQ(m_task->m_monitorPidMap, (Pids{{100, "qemu-kvm"}}));
    EXPECT_EQ(m_task->m_monitorCmdlineMap["qemu-kvm"], "qemu-kvm -name vm-01");
    EXPECT_EQ(Lines("MonitorProcessList add process(pid:100,name:qemu-kvm,cmdLine:qemu-kvm -name "
                    "vm-01) which isn't in full process list"),
              1U);
    const int lookups = m_processes.Lookups();
    EXPECT_TRUE(CheckSelf(100));
    EXPECT_EQ(m_processes.Lookups(), lookups);
}

TEST_F(FileTracking, KeepsTheFirstCommandLineOfAName) {
    m_processes.Add(100, "qemu-kvm", 1, "first");
    m_processes.Add(200, "qemu-kvm", 1, "second");
    CheckSelf(200);
    CheckSelf(100);
    EXPECT_EQ(m_task->m_monitorCmdlineMap["qemu-kvm"], "second");
}

TEST_F(FileTracking, Keeps4096BytesOfACommandLine) {
    m_processes.Add(100, "qemu-kvm", 1, std::string(5000, 'x'));
    CheckSelf(100);
    EXPECT_EQ(m_task->m_monitorCmdlineMap["qemu-kvm"], std::string(4096, 'x'));
}

TEST_F(FileTracking, Keeps4096BytesOfTheCommandLineOfAnAncestor) {
    m_processes.Add(100, "qemu-kvm", 1, std::string(5000, 'x'));
    m_processes.Add(300, "tool", 100);
    CheckParent(300);
    EXPECT_EQ(m_task->m_monitorCmdlineMap["qemu-kvm"], std::string(4096, 'x'));
}

TEST_F(FileTracking, KeepsNoCommandLineOfAProcessThatVanishesBeforeItIsRead) {
    AnswerOnce();
    EXPECT_TRUE(CheckSelf(kNobody));
    EXPECT_EQ(m_task->m_monitorPidMap, (Pids{{kNobody, "qemu-kvm"}}));
    EXPECT_TRUE(m_task->m_monitorCmdlineMap.empty());
    EXPECT_EQ(Lines("MonitorProcessList add process(pid:8388608,name:qemu-kvm,cmdLine:) which "
                    "isn't in full process list"),
              1U);
}

TEST_F(FileTracking, KeepsNoCommandLineOfAnAncestorThatVanishesBeforeItIsRead) {
    AnswerOnce();
    EXPECT_TRUE(CheckParent(kNobody));
    EXPECT_EQ(m_task->m_monitorPidMap, (Pids{{kNobody, "qemu-kvm"}}));
    EXPECT_TRUE(m_task->m_monitorCmdlineMap.empty());
    EXPECT_EQ(Lines("MonitorProcessList add parent process(pid:8388608,name:qemu-kvm,cmdLine:)"),
              1U);
}

TEST_F(FileTracking, GivesNameAndParentOfAProcessThatIsNotMonitored) {
    m_processes.Add(100, "cat", 50);
    EXPECT_FALSE(CheckSelf(100));
    EXPECT_EQ(m_name, "cat");
    EXPECT_EQ(m_ppid, 50);
    EXPECT_TRUE(m_task->m_monitorPidMap.empty());
}

TEST_F(FileTracking, SaysThatNothingIsKnownOfAProcess) {
    EXPECT_FALSE(CheckSelf(kNobody));
    EXPECT_EQ(m_name, "");
    EXPECT_EQ(m_ppid, -7);
    EXPECT_EQ(Lines("QemuFileDetectTask get process(8388608) info failed."), 1U);
}

TEST_F(FileTracking, AttributesAGrandchildAndKeepsItsParentUnderTheMachinesName) {
    m_processes.Add(300, "helper", 200);
    m_processes.Add(200, "tool", 100);
    m_processes.Add(100, "qemu-kvm", 1, "qemu-kvm -name vm-01");
    EXPECT_TRUE(CheckParent(300));
    EXPECT_EQ(m_name, "qemu-kvm");
    EXPECT_EQ(m_task->m_monitorPidMap, (Pids{{300, "qemu-kvm"}}));
    EXPECT_EQ(m_task->m_monitorCmdlineMap["qemu-kvm"], "qemu-kvm -name vm-01");
    EXPECT_EQ(Lines("MonitorProcessList add parent process(pid:300,name:qemu-kvm,cmdLine:qemu-kvm "
                    "-name vm-01)"),
              1U);
    const int lookups = m_processes.Lookups();
    EXPECT_TRUE(CheckParent(300));
    EXPECT_EQ(m_processes.Lookups(), lookups);
}

TEST_F(FileTracking, EndsAtAShell) {
    m_processes.Add(100, "qemu-kvm", 1);
    for (const char* shell : {"bash", "sh"}) {
        m_processes.Add(200, shell, 100);
        EXPECT_FALSE(CheckParent(200)) << shell;
    }
    for (const char* other : {"dash", "Bash", "shx", ""}) {
        m_task->m_monitorPidMap.clear();
        m_processes.Add(200, other, 100);
        EXPECT_TRUE(CheckParent(200)) << other;
    }
}

TEST_F(FileTracking, GoesUpHoweverFarTheMachineIs) {
    m_processes.Add(1000, "qemu-kvm", 1);
    for (int pid = 1001; pid <= 1300; ++pid) {
        m_processes.Add(pid, "tool", pid - 1);
    }
    EXPECT_TRUE(CheckParent(1300));
}

TEST_F(FileTracking, EndsWhenPidsThatAreUsedAgainLeadRoundInACircle) {
    m_processes.Add(500, "a", 600);
    m_processes.Add(600, "b", 500);
    m_processes.Add(700, "c", 701);
    m_processes.Add(701, "d", 702);
    m_processes.Add(702, "e", 500);
    m_processes.Add(800, "f", 800);
    for (const int pid : {500, 600, 700, 800}) {
        EXPECT_FALSE(CheckParent(pid)) << pid;
    }
    EXPECT_TRUE(m_task->m_monitorPidMap.empty());
}

TEST_F(FileTracking, EndsAtAShellFurtherUp) {
    m_processes.Add(100, "qemu-kvm", 1);
    m_processes.Add(150, "sh", 100);
    m_processes.Add(200, "tool", 150);
    EXPECT_FALSE(CheckParent(200));
    EXPECT_TRUE(m_task->m_monitorPidMap.empty());
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(FileTracking, KeepsToItsShareOfTheProcessorOnItsWayUp) {
    SDK::InnerCpuCtrlUtils::SetShare(5);
    CheckParent(-1);
    TestSupport::BurnTime(std::chrono::milliseconds(200));
    CheckParent(-1);
    SDK::InnerCpuCtrlUtils::SetShare(0);
    const std::vector<CapturedLog::Line> lines = m_log.Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const CapturedLog::Line& line) {
        return line.text.rfind("Task(qemu_file_detect_task) is ahead of its share(5%)", 0) == 0 &&
               line.file == "QemuFileDetectTaskTracking.cpp";
    }));
}

TEST_F(FileTracking, LooksAtTheNameBeforeTheStop) {
    m_task->Use(R"({"content":{"senstive_dirs":[],"monitor_list":[)"
                R"({"virtmonitor":"sh","filelist":[]}]}})");
    m_processes.Add(200, "sh", 1);
    EXPECT_TRUE(CheckParent(200)) << "monitored itself, and below init";
}

TEST_F(FileTracking, EndsBelowInitWithoutALine) {
    m_processes.Add(300, "helper", 200);
    m_processes.Add(200, "tool", 1);
    m_processes.Add(1, "qemu-kvm", 0);
    m_log.Clear();
    EXPECT_FALSE(CheckParent(300));
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(FileTracking, EndsWhereNothingIsKnown) {
    m_processes.Add(300, "helper", kNobody);
    EXPECT_FALSE(CheckParent(300));
    EXPECT_EQ(Lines("Get process(pid=8388608) info failed"), 1U);
}

TEST_F(FileTracking, EndsAboveTheTop) {
    m_processes.Add(300, "kthreadd", 0);
    EXPECT_FALSE(CheckParent(300));
    EXPECT_EQ(Lines("Pid(0) is filter."), 1U);
    EXPECT_FALSE(CheckParent(-3));
    EXPECT_EQ(Lines("Pid(-3) is filter."), 1U);
}

TEST_F(FileTracking, LooksAtTheFirstProcessOfAllWhenAskedForIt) {
    m_processes.Add(1, "init", 0);
    EXPECT_FALSE(CheckParent(1));
    EXPECT_EQ(m_log.Texts(kDebug), Strings{"Pid(0) is filter."});
    m_processes.Add(1, "qemu-kvm", 0);
    EXPECT_TRUE(CheckParent(1));
    EXPECT_EQ(m_task->m_monitorPidMap, (Pids{{1, "qemu-kvm"}}));
}

TEST_F(FileTracking, GoesUpWithoutALimit) {
    for (int pid = 1000; pid < 3000; ++pid) {
        m_processes.Add(pid, "step", pid - 1);
    }
    m_processes.Add(999, "qemu-kvm", 1);
    EXPECT_TRUE(CheckParent(2999));
}

}  // namespace
