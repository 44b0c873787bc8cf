// Both ways of finding holders, which must give the same answers.

#include "BpfHolderSource.h"
#include "HolderChoice.h"
#include "ProcFolder.h"
#include "ProcHolderSource.h"
#include "Sockets.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

namespace {

using namespace NetCollectTest;
using NetCollect::Holders;
using NetCollect::ProcFolder;
using NetCollect::StartHolderSource;
using Pids = std::vector<int>;

class HolderSources : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (!MayLook()) {
            GTEST_SKIP() << "needs root";
        }
        rlimit descriptors{};
        ::getrlimit(RLIMIT_NOFILE, &descriptors);
        descriptors.rlim_cur = descriptors.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &descriptors);
        m_source = StartHolderSource(GetParam());
        ASSERT_NE(m_source, nullptr);
    }

    Pids HoldersOf(const OpenSocket& socket) {
        Holders holders;
        EXPECT_TRUE(m_source->Read({socket.Inode()}, holders));
        return holders[socket.Inode()];
    }

    std::size_t CountFound(const std::vector<OpenSocket>& sockets) {
        NetCollect::SocketSet wanted;
        for (const OpenSocket& socket : sockets) {
            wanted.insert(socket.Inode());
        }
        Holders holders;
        EXPECT_TRUE(m_source->Read(wanted, holders));
        return holders.size();
    }

    std::unique_ptr<NetCollect::HolderSource> m_source;
};

TEST_P(HolderSources, AreCalledAsConfigured) { EXPECT_EQ(m_source->Name(), GetParam()); }

TEST_P(HolderSources, FindTheProcess) {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        for (const int family : {AF_INET, AF_INET6}) {
            const OpenSocket socket(type, family);
            EXPECT_EQ(HoldersOf(socket), Pids{::getpid()}) << type << ' ' << family;
        }
    }
}

TEST_P(HolderSources, FindEachProcessThatSharesASocketOnceAndInOrder) {
    const OpenSocket socket;
    const Helper second([] {});
    const Helper third([&] { EXPECT_GE(::dup(socket.Get()), 0); });
    Pids expected{::getpid(), second.Pid(), third.Pid()};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(HoldersOf(socket), expected);
}

TEST_P(HolderSources, FollowASocketThatIsHandedOver) {
    OpenSocket socket;
    const Helper heir([] {});
    const std::uint64_t inode = socket.Inode();
    socket.Close();
    Holders holders;
    ASSERT_TRUE(m_source->Read({inode}, holders));
    EXPECT_EQ(holders[inode], Pids{heir.Pid()});
}

TEST_P(HolderSources, KnowNobodyOfAClosedSocket) {
    OpenSocket socket;
    const std::uint64_t inode = socket.Inode();
    socket.Close();
    Holders holders;
    ASSERT_TRUE(m_source->Read({inode}, holders));
    EXPECT_TRUE(holders.empty());
}

TEST_P(HolderSources, TellOnlyOfWhatWasAskedFor) {
    const OpenSocket asked;
    const OpenSocket other;
    Holders holders{{1, {2}}};
    ASSERT_TRUE(m_source->Read({asked.Inode()}, holders));
    EXPECT_EQ(holders.size(), 1U);
    EXPECT_EQ(holders.count(asked.Inode()), 1U);
}

TEST_P(HolderSources, NameTheProcessOfAThread) {
    const OpenSocket socket;
    std::thread other([&] { EXPECT_EQ(HoldersOf(socket), Pids{::getpid()}); });
    other.join();
}

TEST_P(HolderSources, FindMoreThanTheReadersBufferFull) {
    EXPECT_EQ(CountFound(std::vector<OpenSocket>(1500)), 1500U);
}

TEST_P(HolderSources, FindMoreOfOneProcessThanTheKernelsBufferHolds) {
    // 32 KiB (BPF_ITER's PAGE_SIZE << 3, kernel/bpf/bpf_iter.c) are 2,048 holders.
    EXPECT_EQ(CountFound(std::vector<OpenSocket>(2500)), 2500U);
}

TEST_P(HolderSources, LookAtASocketsFileOnceWhateverItsNumber) {
    const OpenSocket socket;
    const int highest = ::fcntl(socket.Get(), F_DUPFD_CLOEXEC, 900);
    ASSERT_GE(highest, 900);
    EXPECT_EQ(HoldersOf(socket), Pids{::getpid()});
    ::close(highest);
}

TEST_P(HolderSources, AreNotMisledByThePathOfASocket) {
    const TestSupport::TemporaryFolder folder;
    const std::string path = folder / "socket";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int local = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(local, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const int opened = ::open(path.c_str(), O_PATH | O_CLOEXEC);
    ASSERT_GE(opened, 0);
    const OpenSocket socket;
    EXPECT_EQ(HoldersOf(socket), Pids{::getpid()});
    ::close(opened);
    ::close(local);
}

TEST_P(HolderSources, SurviveProcessesThatComeAndGo) {
    const OpenSocket socket;
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop) {
            const pid_t child = ::vfork();
            if (child == 0) {
                ::_exit(0);
            }
            ::waitpid(child, nullptr, 0);
        }
    });
    for (int i = 0; i < 50; ++i) {
        const Pids holders = HoldersOf(socket);
        EXPECT_NE(std::find(holders.begin(), holders.end(), ::getpid()), holders.end());
    }
    stop = true;
    churn.join();
}

INSTANTIATE_TEST_SUITE_P(Of, HolderSources, testing::Values("bpf", "proc"),
                         [](const auto& source) { return std::string(source.param); });

TEST(HolderChoice, TakesBpfWhereItWorks) {
    if (!MayLook()) {
        GTEST_SKIP() << "needs root";
    }
    const auto source = StartHolderSource("auto");
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(source->Name(), "bpf");
}

TEST(HolderChoice, RefusesWhatItDoesNotKnow) {
    const TestSupport::CapturedLog log;
    EXPECT_EQ(StartHolderSource("magic"), nullptr);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR,
                        "Configuration net_collect.holders is magic, expected auto, bpf or proc."),
              1U);
}

/// Runs something in a child that has no privileges. @return its exit status
int WithoutPrivileges(const std::function<int()>& act) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(::setgid(65534) == 0 && ::setuid(65534) == 0 ? act() : 99);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(HolderChoice, FallsBackToProcWhereBpfIsForbidden) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give it up";
    }
    EXPECT_EQ(WithoutPrivileges([] {
                  const auto source = StartHolderSource("auto");
                  return source != nullptr && source->Name() == "proc" ? 0 : 1;
              }),
              0);
    EXPECT_EQ(WithoutPrivileges([] { return StartHolderSource("bpf") == nullptr ? 0 : 1; }), 0);
}

TEST(ProcHolderSource, CountsProcessesThatItMayNotReadAndSaysSoOnce) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give it up";
    }
    EXPECT_EQ(WithoutPrivileges([] {
                  const TestSupport::CapturedLog log;
                  NetCollect::ProcHolderSource source;
                  Holders holders;
                  const bool read = source.Read({1}, holders) && source.Read({1}, holders);
                  const auto errors = log.Texts(Poco::Message::PRIO_ERROR);
                  return read && source.Unreadable() > 1 && errors.size() == 1 ? 0 : 1;
              }),
              0);
}

TEST(ProcFolder, ListsThisProcess) {
    const Pids pids = ProcFolder::ListPids();
    EXPECT_NE(std::find(pids.begin(), pids.end(), ::getpid()), pids.end());
}

TEST(ProcFolder, SaysThatAProcessIsGone) {
    Helper helper([] {});
    const int pid = helper.Pid();
    helper.End();
    EXPECT_EQ(ProcFolder::ForEachSocket(pid, [](std::uint64_t) {}), ENOENT);
    EXPECT_EQ(ProcFolder::ExePath(pid), "");
}

TEST(ProcFolder, KnowsTheExecutable) {
    EXPECT_NE(ProcFolder::ExePath(::getpid()).find("component_net_collect_tests"),
              std::string::npos);
}

}  // namespace
