#include "BpfProcessSource.h"
#include "CollectorHarness.h"
#include "ProcReader.h"
#include "support/CapturedLog.h"

#include <linux/memfd.h>
#include <linux/sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <fstream>
#include <set>
#include <thread>

namespace ProcessCollectTest {

namespace {

/// What only the programs inside the kernel can tell.
class BpfSource : public testing::Test {
protected:
    void SetUp() override {
        if (!MayUseKernel()) {
            GTEST_SKIP() << "needs root";
        }
    }

    void StartCollector(std::size_t ringBytes = 4 << 20, unsigned int inboxCapacity = 1 << 17) {
        m_harness = std::make_unique<CollectorHarness>("bpf", ringBytes, inboxCapacity);
        ASSERT_TRUE(m_harness->Start());
    }

    std::unique_ptr<CollectorHarness> m_harness;
};

int RawClone(unsigned long flags) {
    return static_cast<int>(::syscall(SYS_clone, flags, 0, 0, 0, 0));
}

constexpr int kStormCommands = 5000;

// One storm: commands one after the other, each with an argument of its own.
void RunStorm(const std::string& mark) {
    for (int i = 0; i < kStormCommands; ++i) {
        Reap(Spawn({"/bin/true", mark, std::to_string(i), "last argument"}));
    }
}

}  // namespace

TEST_F(BpfSource, TwoStormsSideBySideAreSeenInFullWithTheirArguments) {
    StartCollector();
    std::thread one(RunStorm, "one");
    std::thread two(RunStorm, "two");
    std::set<std::string> commands;
    std::size_t execs = 0;
    const auto collect = [&] {
        m_harness->Pump();
        for (const Seen& seen : m_harness->All()) {
            if (seen.m_flag == ProcsMessage::EXEC && seen.m_info->m_ppid == ::getpid()) {
                ++execs;
                commands.insert(seen.m_info->m_cmdline);
                EXPECT_EQ(seen.m_info->m_name, "true");
            }
        }
        m_harness->Forget();
        return execs >= 2 * kStormCommands;
    };
    EXPECT_TRUE(TestSupport::WaitUntil(collect, std::chrono::seconds(90)));
    one.join();
    two.join();
    collect();
    EXPECT_EQ(execs, 2U * kStormCommands);
    for (int i = 0; i < kStormCommands; ++i) {
        const std::string tail = " " + std::to_string(i) + " last argument";
        EXPECT_EQ(commands.count("/bin/true one" + tail), 1U) << i;
        EXPECT_EQ(commands.count("/bin/true two" + tail), 1U) << i;
    }
    const ProcessCollect::Counters books = m_harness->Collector().GetCounters();
    EXPECT_TRUE(books.Balanced());
    EXPECT_EQ(books.m_lostInKernel + books.m_lostBehind, 0U);
}

TEST_F(BpfSource, ReaderRestsLongerWhereEventsAreManyForTheTimeThatHasPassed) {
    using ProcessCollect::BpfProcessSource;
    using std::chrono::milliseconds;
    EXPECT_EQ(BpfProcessSource::RestMs(10, milliseconds(2)), 2) << "five in a millisecond";
    EXPECT_EQ(BpfProcessSource::RestMs(11, milliseconds(2)), 16);
    EXPECT_EQ(BpfProcessSource::RestMs(81, milliseconds(16)), 16);
    EXPECT_EQ(BpfProcessSource::RestMs(80, milliseconds(16)), 2);
    EXPECT_EQ(BpfProcessSource::RestMs(40, milliseconds(8)), 2) << "it was woken late";
}

TEST_F(BpfSource, ReaderSleepsUntilTheNextCommandWhenThereIsNothing) {
    const auto source = ProcessCollect::StartSource("bpf", 1 << 20);
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(source->PrepareSleep(0), 200);
    EXPECT_EQ(source->PrepareSleep(1000), 2) << "the time before does not count as a storm's";
    source->Stop();
}

TEST_F(BpfSource, ForkWithCloneParentIsToldOfTheCaller) {
    StartCollector();
    const int middle = RawClone(SIGCHLD);
    if (middle == 0) {
        // The kernel makes the new process this test's child, but the middle one called.
        const int child = RawClone(CLONE_PARENT | SIGCHLD);
        if (child == 0) {
            ::execl("/bin/true", "true", "adopted", nullptr);
        }
        ::_exit(0);
    }
    const auto info = m_harness->WaitForExec("true adopted");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_ppid, middle);
    Reap(middle);
    Reap(info->m_pid);
}

TEST_F(BpfSource, CommandThatEndsAtOnceIsLookedUpWithoutWaitingForTheReader) {
    StartCollector();
    const int pid = Spawn({"/bin/true", "gone"});
    Reap(pid);
    SDK::ProcessUtils::procRecord record;
    ASSERT_TRUE(m_harness->Collector().Lookup(pid, record));
    EXPECT_EQ(record.m_status.m_name, "true");
    EXPECT_EQ(record.m_status.m_ppid, ::getpid());
    EXPECT_EQ(record.m_cmdline, "/bin/true gone");
}

TEST_F(BpfSource, ProgramInMemoryHasItsNameForAPath) {
    StartCollector();
    const int memory = static_cast<int>(::syscall(SYS_memfd_create, "payload", MFD_CLOEXEC));
    ASSERT_GE(memory, 0);
    std::ifstream program("/bin/true", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(program)), {});
    ASSERT_EQ(::write(memory, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    const int pid = RawClone(SIGCHLD);
    if (pid == 0) {
        char name[] = "in-memory";
        char* arguments[] = {name, nullptr};
        ::fexecve(memory, arguments, environ);
        ::_exit(1);
    }
    const auto info = m_harness->WaitForExec("in-memory");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_exePath, "/memfd:payload");
    ::close(memory);
    Reap(pid);
}

TEST_F(BpfSource, PathCrossesMounts) {
    StartCollector();
    const CopiedProgram program("outer");
    const std::string inner = program.Folder() + "/inner";
    std::filesystem::create_directory(inner);
    ASSERT_EQ(::mount("tmpfs", inner.c_str(), "tmpfs", 0, nullptr), 0);
    std::filesystem::create_directories(inner + "/a/b");
    std::filesystem::copy_file(program.Path(), inner + "/a/b/deep");
    Reap(Spawn({inner + "/a/b/deep"}));
    const auto info = m_harness->WaitForExec(inner + "/a/b/deep");
    EXPECT_EQ(::umount(inner.c_str()), 0);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_exePath, inner + "/a/b/deep");
}

TEST_F(BpfSource, PathThroughALinkIsTheExecutablesOwn) {
    StartCollector();
    const CopiedProgram program("real-program");
    const std::string link = program.Folder() + "/link";
    std::filesystem::create_symlink(program.Path(), link);
    Reap(Spawn({link}));
    const auto info = m_harness->WaitForExec(link);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_exePath, program.Path());
    EXPECT_EQ(info->m_name, "link");
}

TEST_F(BpfSource, ScriptLendsItsNameAndTheInterpreterItsPath) {
    StartCollector();
    const CopiedProgram folder("unused");
    const std::string script = folder.Folder() + "/script";
    std::ofstream(script) << "#!/bin/sh\nexit 0\n";
    ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
    Reap(Spawn({script, "x"}));
    const auto info = m_harness->WaitForExec("/bin/sh " + script);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->m_name, "script");
    EXPECT_EQ(info->m_exePath, std::filesystem::canonical("/bin/sh").string());
}

TEST_F(BpfSource, EventsBeyondATinyRingAreCountedAndTheProcessListIsReadAgain) {
    TestSupport::CapturedLog log;
    StartCollector(4096);
    const int survivor = Spawn({"/bin/sleep", "60"});
    for (int i = 0; i < 100; ++i) {
        Reap(Spawn({"/bin/true", std::to_string(i)}));
    }
    const int late = Spawn({"/bin/sleep", "61"});
    ASSERT_NE(m_harness->WaitForExec("/bin/sleep 61"), nullptr);
    const ProcessCollect::Counters books = m_harness->Collector().GetCounters();
    EXPECT_TRUE(books.Balanced());
    EXPECT_GT(books.m_lostInKernel, 100U);
    EXPECT_EQ(m_harness->Collector().Rescans(), 1U);
    EXPECT_TRUE(log.Contains("lost process events"));
    EXPECT_EQ(m_harness->Of(ProcsMessage::FORK, late).size(), 1U);
    EXPECT_EQ(m_harness->Of(ProcsMessage::EXEC, late).size(), 1U);
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> procs;
    m_harness->Collector().Snapshot(procs);
    EXPECT_EQ(procs.count(survivor), 1U);
    EXPECT_EQ(procs.count(late), 1U);
    ::kill(survivor, SIGKILL);
    ::kill(late, SIGKILL);
    Reap(survivor);
    Reap(late);
}

TEST_F(BpfSource, EndThatWasLostIsToldAfterTheListWasReadAgain) {
    StartCollector(4096);
    const int pid = Spawn({"/bin/sleep", "60"});
    ASSERT_NE(m_harness->WaitForExec("/bin/sleep 60"), nullptr);
    for (int i = 0; i < 50; ++i) {
        Reap(Spawn({"/bin/true", std::to_string(i)}));
    }
    ::kill(pid, SIGKILL);
    Reap(pid);
    EXPECT_TRUE(m_harness->WaitForExit(pid));
    EXPECT_EQ(m_harness->Of(ProcsMessage::EXIT, pid).size(), 1U);
    EXPECT_TRUE(m_harness->Collector().GetCounters().Balanced());
}

TEST_F(BpfSource, ExecThatWasLostIsToldAfterTheListWasReadAgain) {
    StartCollector(4096);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const int pid = RawClone(SIGCHLD);
    if (pid == 0) {
        char go = 0;
        [[maybe_unused]] const ssize_t got = ::read(ends[0], &go, 1);
        ::execl("/bin/sleep", "sleep", "62", nullptr);
        ::_exit(1);
    }
    m_harness->Pump();
    for (int i = 0; i < 50; ++i) {
        Reap(Spawn({"/bin/true", std::to_string(i)}));
    }
    ASSERT_EQ(::write(ends[1], "x", 1), 1);
    ASSERT_TRUE(TestSupport::WaitUntil(
        [&] { return ProcessCollect::ProcReader::ReadArguments(pid).rfind("sleep", 0) == 0; }));
    EXPECT_NE(m_harness->WaitForExec("sleep 62"), nullptr);
    EXPECT_EQ(m_harness->Of(ProcsMessage::EXEC, pid).size(), 1U);
    ::kill(pid, SIGKILL);
    Reap(pid);
    ::close(ends[0]);
    ::close(ends[1]);
}

}  // namespace ProcessCollectTest
