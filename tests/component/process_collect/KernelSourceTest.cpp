#include "CollectorHarness.h"
#include "support/CapturedLog.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <set>
#include <thread>

namespace ProcessCollectTest {

namespace {

/// What both kernel mechanisms must tell. Each test runs once with each of them.
class KernelSource : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (!MayUseKernel()) {
            GTEST_SKIP() << "needs root";
        }
        m_harness = std::make_unique<CollectorHarness>(GetParam());
        ASSERT_TRUE(m_harness->Start());
    }

    std::unique_ptr<CollectorHarness> m_harness;
};

INSTANTIATE_TEST_SUITE_P(Sources, KernelSource, testing::Values("bpf", "connector"),
                         [](const auto& instance) { return instance.param; });

struct Pipe {
    Pipe() { EXPECT_EQ(::pipe2(m_ends, O_CLOEXEC), 0); }
    ~Pipe() {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }
    int m_ends[2] = {-1, -1};
};

int ReadPid(int descriptor) {
    int pid = -1;
    EXPECT_EQ(::read(descriptor, &pid, sizeof(pid)), static_cast<ssize_t>(sizeof(pid)));
    return pid;
}

void WritePid(int descriptor, int pid) {
    [[maybe_unused]] const ssize_t written = ::write(descriptor, &pid, sizeof(pid));
}

bool IsZombie(int pid) {
    ProcessCollect::ProcStat stat;
    return ProcessCollect::ProcStatReader::Read(pid, stat) && stat.m_state == 'Z';
}

// fork(2) without the C library's handlers: the tests' children only make system calls.
int RawFork(unsigned long flags = 0) {
    return static_cast<int>(::syscall(SYS_clone, flags | SIGCHLD, 0, 0, 0, 0));
}

}  // namespace

TEST_P(KernelSource, ExecIsToldWithArgumentsPathParentAndName) {
    const int pid = Spawn({"/bin/sleep", "0.3"});
    const auto info = m_harness->WaitForExec("/bin/sleep 0.3");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_pid, pid);
    EXPECT_EQ(info->m_ppid, ::getpid());
    EXPECT_EQ(info->m_name, "sleep");
    EXPECT_EQ(info->m_exePath, std::filesystem::canonical("/bin/sleep").string());
    EXPECT_EQ(info->m_cmdline, "/bin/sleep 0.3");
    EXPECT_NE(info->m_startTime, 0U);
    Reap(pid);
    EXPECT_TRUE(m_harness->WaitForExit(pid));
    EXPECT_EQ(m_harness->Of(ProcsMessage::EXEC, pid).size(), 1U);
    EXPECT_EQ(m_harness->Of(ProcsMessage::EXIT, pid).size(), 1U);
}

TEST_P(KernelSource, ExecsAreToldWithTheirTimeOnTheClockOfTheReader) {
    using Seconds = std::chrono::duration<double>;
    const auto start = std::chrono::steady_clock::now();
    const SDK::LatencyHistogram before = m_harness->Collector().GetLedger().m_latency.value();
    const int pid = Spawn({"/bin/sleep", "0.1"});
    const auto ran = std::chrono::steady_clock::now();
    const Seconds waited = std::chrono::steady_clock::now() - ran;  // nobody has read till now
    EXPECT_NE(m_harness->WaitForExec("/bin/sleep 0.1"), nullptr);
    Reap(pid);
    const SDK::LatencyHistogram after = m_harness->Collector().GetLedger().m_latency.value();
    const Seconds all = std::chrono::steady_clock::now() - start;
    const auto told = static_cast<double>(after.Count() - before.Count());
    EXPECT_GE(told, 1);
    EXPECT_GT(after.SumS() - before.SumS(), waited.count());
    EXPECT_LE(after.SumS() - before.SumS(), told * all.count()) << "none is older than this test";
}

TEST_P(KernelSource, AChildIsKnownToALookUpWithoutAWait) {
    // Nobody pumps here: whoever asks right after the start gets the answer all the same.
    for (int i = 0; i < 50; ++i) {
        const int pid = Spawn({"/bin/true"});
        SDK::ProcessUtils::procRecord record;
        EXPECT_TRUE(m_harness->Collector().Lookup(pid, record));
        EXPECT_EQ(record.m_status.m_ppid, ::getpid());
        Reap(pid);
    }
    EXPECT_EQ(m_harness->Collector().UnknownLookups(), 0U);
    EXPECT_EQ(m_harness->Collector().Lookups(), 50U);
}

TEST_P(KernelSource, ALookUpOfWhatIsNotKnownIsCounted) {
    SDK::ProcessUtils::procRecord record;
    EXPECT_FALSE(m_harness->Collector().Lookup(1 << 23, record));
    EXPECT_EQ(m_harness->Collector().UnknownLookups(), 1U);
}

TEST_P(KernelSource, ForkedChildInheritsNameAndArguments) {
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> procs;
    m_harness->Collector().Snapshot(procs);
    ASSERT_EQ(procs.count(::getpid()), 1U);
    const int pid = RawFork();
    if (pid == 0) {
        ::_exit(0);
    }
    Reap(pid);
    ASSERT_TRUE(m_harness->WaitForExit(pid));
    const auto forks = m_harness->Of(ProcsMessage::FORK, pid);
    ASSERT_EQ(forks.size(), 1U);
    EXPECT_EQ(forks[0].m_info->m_ppid, ::getpid());
    EXPECT_EQ(forks[0].m_info->m_name, procs[::getpid()]->m_name);
    EXPECT_EQ(forks[0].m_info->m_parentName, procs[::getpid()]->m_name);
    EXPECT_EQ(forks[0].m_info->m_cmdline, procs[::getpid()]->m_cmdline);
    EXPECT_EQ(forks[0].m_info->m_exePath, procs[::getpid()]->m_exePath);
    EXPECT_TRUE(m_harness->Of(ProcsMessage::EXEC, pid).empty());
}

TEST_P(KernelSource, DoubleForkWithSetsidKeepsTheForkingParent) {
    const Pipe pipe;
    const int middle = RawFork();
    if (middle == 0) {
        ::setsid();
        const int grandchild = RawFork();
        if (grandchild == 0) {
            ::execl("/bin/sleep", "sleep", "0.4", nullptr);
            ::_exit(1);
        }
        WritePid(pipe.m_ends[1], grandchild);
        ::_exit(0);
    }
    const int grandchild = ReadPid(pipe.m_ends[0]);
    Reap(middle);
    const auto info = m_harness->WaitForExec("sleep 0.4");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_pid, grandchild);
    EXPECT_EQ(info->m_ppid, middle);
    SDK::ProcessUtils::procRecord record;
    ASSERT_TRUE(m_harness->WaitForExit(middle));
    ASSERT_TRUE(m_harness->Collector().Lookup(middle, record));
    EXPECT_EQ(record.m_status.m_ppid, ::getpid());
    EXPECT_TRUE(m_harness->WaitForExit(grandchild));
}

TEST_P(KernelSource, VforkedChildIsTold) {
    const int pid = ::vfork();
    if (pid == 0) {
        ::execl("/bin/true", "true", "vforked", nullptr);
        ::_exit(1);
    }
    Reap(pid);
    ASSERT_TRUE(m_harness->WaitForExit(pid));
    const auto forks = m_harness->Of(ProcsMessage::FORK, pid);
    ASSERT_EQ(forks.size(), 1U);
    EXPECT_EQ(forks[0].m_info->m_ppid, ::getpid());
    EXPECT_EQ(m_harness->Of(ProcsMessage::EXEC, pid).size(), 1U);
}

TEST_P(KernelSource, ThreadsAreNeverTold) {
    std::set<int> threads;
    for (int i = 0; i < 20; ++i) {
        std::thread([&threads] { threads.insert(::gettid()); }).join();
    }
    const int pid = Spawn({"/bin/true", "marker"});
    Reap(pid);
    ASSERT_TRUE(m_harness->WaitForExit(pid));
    for (const Seen& seen : m_harness->All()) {
        EXPECT_EQ(threads.count(seen.m_pid), 0U) << seen.m_pid;
        EXPECT_NE(seen.m_pid, ::getpid());
    }
}

TEST_P(KernelSource, ExecByAnotherThreadIsToldOfTheProcess) {
    const int pid = RawFork();
    if (pid == 0) {
        std::thread([] { ::execl("/bin/sleep", "sleep", "0.2", "0", nullptr); }).join();
        ::_exit(1);
    }
    const auto info = m_harness->WaitForExec("sleep 0.2 0");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_pid, pid);
    EXPECT_EQ(info->m_ppid, ::getpid());
    EXPECT_TRUE(m_harness->Of(ProcsMessage::EXIT, pid).empty());
    Reap(pid);
    EXPECT_TRUE(m_harness->WaitForExit(pid));
    EXPECT_EQ(m_harness->Of(ProcsMessage::EXIT, pid).size(), 1U);
}

TEST_P(KernelSource, ProcessThatOutlivesItsFirstThreadEndsOnce) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a child forked behind ThreadSanitizer's back cannot start a thread";
#endif
    const Pipe release;
    const int pid = RawFork();
    if (pid == 0) {
        std::thread([&release] {
            ReadPid(release.m_ends[0]);
            ::syscall(SYS_exit, 0);
        }).detach();
        ::syscall(SYS_exit, 0);
    }
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return IsZombie(pid); }));
    m_harness->Pump();
    EXPECT_EQ(m_harness->Of(ProcsMessage::FORK, pid).size(), 1U);
    EXPECT_TRUE(m_harness->Of(ProcsMessage::EXIT, pid).empty());
    WritePid(release.m_ends[1], 1);
    Reap(pid);
    EXPECT_TRUE(m_harness->WaitForExit(pid));
    EXPECT_EQ(m_harness->Of(ProcsMessage::EXIT, pid).size(), 1U);
}

TEST_P(KernelSource, RenameByTheProcessItselfChangesNothing) {
    const Pipe pipe;
    const Pipe release;
    const int pid = RawFork();
    if (pid == 0) {
        ::prctl(PR_SET_NAME, "innocent");
        WritePid(pipe.m_ends[1], 1);
        int go = 0;
        [[maybe_unused]] const ssize_t got = ::read(release.m_ends[0], &go, sizeof(go));
        ::_exit(0);
    }
    ReadPid(pipe.m_ends[0]);
    SDK::ProcessUtils::procRecord record;
    ASSERT_TRUE(m_harness->Collector().Lookup(pid, record));
    SDK::ProcessUtils::procRecord own;
    ASSERT_TRUE(m_harness->Collector().Lookup(::getpid(), own));
    EXPECT_EQ(record.m_status.m_name, own.m_status.m_name);
    WritePid(release.m_ends[1], 1);
    Reap(pid);
}

TEST_P(KernelSource, NameCutByTheKernelIsCompleted) {
    const CopiedProgram program("qemu-system-x86_64", "/bin/sleep");
    const int pid = Spawn({program.Path(), "0.2"});
    const auto info = m_harness->WaitForExec(program.Path());
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_name, "qemu-system-x86_64");
    EXPECT_EQ(info->m_exePath, program.Path());
    Reap(pid);
}

TEST_P(KernelSource, RunningExecutableThatIsDeletedKeepsItsPath) {
    const CopiedProgram program("doomed", "/bin/sleep");
    const int pid = Spawn({program.Path(), "0.3"});
    std::filesystem::remove(program.Path());
    const auto info = m_harness->WaitForExec(program.Path());
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_exePath, program.Path());
    Reap(pid);
}

TEST_P(KernelSource, CommandLineEndsAt4096Bytes) {
    const std::string word(3000, 'a');
    const int longOne = Spawn({"/bin/sh", "-c", "sleep 0.3; : $0 $1", word, word, word});
    const auto info = m_harness->WaitForExec("/bin/sh -c sleep 0.3; : $0 $1 aaa");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_cmdline.size(), 4096U);
    EXPECT_EQ(info->m_cmdline.back(), 'a');
    Reap(longOne);
}

TEST_P(KernelSource, ProcessThatEndedIsStillLookedUp) {
    const int pid = Spawn({"/bin/sleep", "0.2"});
    ASSERT_NE(m_harness->WaitForExec("/bin/sleep 0.2"), nullptr);
    Reap(pid);
    ASSERT_TRUE(m_harness->WaitForExit(pid));
    SDK::ProcessUtils::procRecord record;
    ASSERT_TRUE(m_harness->Collector().Lookup(pid, record));
    EXPECT_EQ(record.m_status.m_name, "sleep");
    EXPECT_EQ(record.m_status.m_ppid, ::getpid());
    EXPECT_EQ(record.m_cmdline, "/bin/sleep 0.2");
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> procs;
    m_harness->Collector().Snapshot(procs);
    EXPECT_EQ(procs.count(pid), 0U);
}

TEST_P(KernelSource, ProcessThatLivedBeforeTheCollectorIsInTheFirstSnapshot) {
    const CopiedProgram program("qemu-system-aarch64", "/bin/sleep");
    const int pid = Spawn({program.Path(), "30"});
    CollectorHarness later(GetParam());
    ASSERT_TRUE(later.Start());
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> procs;
    later.Collector().Snapshot(procs);
    ASSERT_EQ(procs.count(pid), 1U);
    EXPECT_EQ(procs[pid]->m_name, "qemu-system-aarch64");
    EXPECT_EQ(procs[pid]->m_cmdline, program.Path() + " 30");
    EXPECT_EQ(procs[pid]->m_ppid, ::getpid());
    ::kill(pid, SIGKILL);
    Reap(pid);
}

TEST_P(KernelSource, BooksBalanceOverManyShortLivedCommands) {
    for (int i = 0; i < 300; ++i) {
        Reap(Spawn({"/bin/true", std::to_string(i)}));
    }
    m_harness->Pump();
    const ProcessCollect::Counters books = m_harness->Collector().GetCounters();
    EXPECT_TRUE(books.Balanced());
    EXPECT_EQ(books.m_lostInKernel, 0U);
    EXPECT_GE(books.m_delivered, 900U);
}

}  // namespace ProcessCollectTest
