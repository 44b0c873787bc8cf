// The whole table, beside ss.

#include "SocketTable.h"

#include "HolderChoice.h"
#include "NetCollectModule.h"
#include "NetFullTask.h"
#include "Sockets.h"
#include "framework/Engine.h"
#include "sdk/ProcessUtils.h"
#include "support/CapturedLog.h"
#include "support/ChildProcess.h"
#include "support/WaitUntil.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/AbstractConfiguration.h>

#include <net/if.h>
#include <sys/ioctl.h>

#include <atomic>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

namespace {

using namespace NetCollectTest;
using NetCollect::NetNamespaces;
using NetCollect::SocketTable;
using Rows = std::multiset<std::string>;
using TestSupport::CapturedLog;

/// The kind of socket, its port and its holders, as a text.
std::string Row(const std::string& kind, int port, const std::set<int>& pids) {
    std::string row = kind + ' ' + std::to_string(port);
    for (const int pid : pids) {
        row += ' ' + std::to_string(pid);
    }
    return row;
}

/// What ss says of the sockets of this namespace that somebody holds.
Rows RowsOfSs() {
    Rows rows;
    std::istringstream lines(TestSupport::ChildProcess::Run({"ss", "-tulpnH"}).m_output);
    const std::regex pid("pid=([0-9]+)");
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string kind;
        std::string state;
        std::string receive;
        std::string send;
        std::string local;
        words >> kind >> state >> receive >> send >> local;
        std::set<int> pids;
        for (std::sregex_iterator found(line.begin(), line.end(), pid), end; found != end;
             ++found) {
            pids.insert(std::stoi((*found)[1]));
        }
        if (!pids.empty()) {
            rows.insert(Row(kind, std::stoi(local.substr(local.rfind(':') + 1)), pids));
        }
    }
    return rows;
}

class SocketTableTest : public testing::Test {
protected:
    void SetUp() override {
        if (!MayLook()) {
            GTEST_SKIP() << "needs root";
        }
        m_table = std::make_unique<SocketTable>(NetCollect::StartHolderSource("auto"));
    }

    SocketTable::Table Read() {
        SocketTable::Table table;
        m_table->Read(table);
        return table;
    }

    /// The rows of this namespace.
    Rows OwnRows() {
        std::vector<NetCollect::Socket> own;
        NetCollect::SocketReader().Read(own);
        NetCollect::SocketSet inodes;
        for (const NetCollect::Socket& socket : own) {
            inodes.insert(socket.m_inode);
        }
        Rows rows;
        for (const auto& [key, info] : Read()) {
            std::set<int> pids;
            for (const auto& [pid, holder] : info->m_processes) {
                pids.insert(pid);
            }
            if (inodes.count(static_cast<std::uint64_t>(key)) != 0) {
                rows.insert(Row(info->m_protocol == 6 ? "tcp" : "udp", info->m_port, pids));
            }
        }
        return rows;
    }

    std::unique_ptr<SocketTable> m_table;
};

TEST_F(SocketTableTest, IsThatOfSs) {
    const OpenSocket tcp;
    const OpenSocket tcp6(SOCK_STREAM, AF_INET6);
    const OpenSocket udp(SOCK_DGRAM);
    const OpenSocket udp6(SOCK_DGRAM, AF_INET6);
    const Helper sharing([] {});
    Rows ours;
    Rows theirs;
    // Others on this host may open and close between the two looks.
    EXPECT_TRUE(TestSupport::WaitUntil([&] {
        ours = OwnRows();
        theirs = RowsOfSs();
        return ours == theirs;
    }));
    EXPECT_EQ(ours, theirs);
    EXPECT_EQ(ours.count(Row("tcp", tcp.Port(), {::getpid(), sharing.Pid()})), 1U);
    EXPECT_EQ(ours.count(Row("udp", udp6.Port(), {::getpid(), sharing.Pid()})), 1U);
}

TEST_F(SocketTableTest, IsTheSameFromBothSourcesOfHolders) {
    const OpenSocket tcp;
    const OpenSocket udp(SOCK_DGRAM, AF_INET6);
    SocketTable slower(NetCollect::StartHolderSource("proc"));
    const auto describe = [](const SocketTable::Table& table) {
        Rows rows;
        for (const auto& [key, info] : table) {
            std::set<int> pids;
            for (const auto& [pid, holder] : info->m_processes) {
                pids.insert(pid);
            }
            rows.insert(std::to_string(key) + Row("", info->m_port, pids));
        }
        return rows;
    };
    EXPECT_TRUE(TestSupport::WaitUntil([&] {
        SocketTable::Table table;
        slower.Read(table);
        return describe(table) == describe(Read());
    }));
}

TEST_F(SocketTableTest, DescribesTheHolders) {
    const OpenSocket socket;
    const SocketTable::Table table = Read();
    const auto found = table.find(static_cast<long>(socket.Inode()));
    ASSERT_NE(found, table.end());
    EXPECT_EQ(found->second->m_port, socket.Port());
    EXPECT_EQ(found->second->m_protocol, IPPROTO_TCP);
    ASSERT_EQ(found->second->m_processes.count(::getpid()), 1U);
    const auto& info = *found->second->m_processes[::getpid()];
    EXPECT_EQ(info.m_pid, ::getpid());
    EXPECT_EQ(info.m_ppid, ::getppid());
    EXPECT_NE(info.m_cmdline.find("component_net_collect_tests"), std::string::npos);
    EXPECT_NE(info.m_exePath.find("component_net_collect_tests"), std::string::npos);
    EXPECT_FALSE(info.m_name.empty());
    EXPECT_FALSE(info.m_parentName.empty());
}

TEST_F(SocketTableTest, TakesNamesAndCommandLinesFromTheProcessCollector) {
    SDK::ProcessUtils::SetLookup([](int pid, SDK::ProcessUtils::procRecord& record) {
        record.m_status = {pid, 1, "name-" + std::to_string(pid)};
        record.m_cmdline = "line";
        return true;
    });
    const OpenSocket socket;
    const SocketTable::Table table = Read();
    SDK::ProcessUtils::SetLookup(nullptr);
    const auto& info = *table.at(static_cast<long>(socket.Inode()))->m_processes.at(::getpid());
    EXPECT_EQ(info.m_name, "name-" + std::to_string(::getpid()));
    EXPECT_EQ(info.m_cmdline, "line");
    EXPECT_EQ(info.m_parentName, "name-1");
}

TEST_F(SocketTableTest, GivesEachSocketRecordsOfItsOwn) {
    const OpenSocket first;
    const OpenSocket second;
    SocketTable::Table table = Read();
    auto& info = *table.at(static_cast<long>(first.Inode()))->m_processes.at(::getpid());
    info.m_cmdline = "changed";
    EXPECT_NE(table.at(static_cast<long>(second.Inode()))->m_processes.at(::getpid())->m_cmdline,
              "changed");
}

/// Takes the calling process into a network of its own, with a loopback that works.
void EnterOwnNetwork() {
    ifreq request{};
    request.ifr_name[0] = 'l';
    request.ifr_name[1] = 'o';
    request.ifr_flags = IFF_UP;
    if (::unshare(CLONE_NEWNET) != 0 ||
        ::ioctl(::socket(AF_INET, SOCK_DGRAM, 0), SIOCSIFFLAGS, &request) != 0) {
        ::_exit(2);
    }
}

TEST_F(SocketTableTest, HasTheSocketsOfEveryNetworkNamespace) {
    const Helper pod([] {
        EnterOwnNetwork();
        static OpenSocket inside;
    });
    int found = 0;
    for (const auto& [key, info] : Read()) {
        found += static_cast<int>(info->m_processes.count(pod.Pid()));
    }
    EXPECT_EQ(found, 1);
    NetNamespaces::Outcome outcome;
    EXPECT_EQ(NetNamespaces::List(outcome).size(), 2U);
    EXPECT_EQ(outcome.m_failed, 0U);
}

TEST_F(SocketTableTest, LeavesTheCallerInItsNamespace) {
    const Helper pod([] { EnterOwnNetwork(); });
    const OpenSocket socket;
    Read();
    EXPECT_EQ(Read().count(static_cast<long>(socket.Inode())), 1U);
}

TEST_F(SocketTableTest, SurvivesNamespacesThatComeAndGo) {
    const OpenSocket socket;
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::unshare(CLONE_NEWNET);
                ::_exit(0);
            }
            ::waitpid(child, nullptr, 0);
        }
    });
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(Read().count(static_cast<long>(socket.Inode())), 1U);
    }
    stop = true;
    churn.join();
    EXPECT_EQ(m_table->GetCounters().m_failedTables, 0U);
    EXPECT_EQ(m_table->GetCounters().m_tables, 30U);
}

TEST_F(SocketTableTest, SurvivesSocketsThatComeAndGo) {
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop) {
            const OpenSocket tcp;
            const OpenSocket udp(SOCK_DGRAM);
        }
    });
    const OpenSocket socket;
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(Read().count(static_cast<long>(socket.Inode())), 1U);
    }
    stop = true;
    churn.join();
}

/// A source of holders that does not work.
class BrokenSource : public NetCollect::HolderSource {
public:
    std::string Name() const override { return "broken"; }
    bool Start() override { return true; }
    bool Read(const NetCollect::SocketSet& /*sockets*/, NetCollect::Holders& holders) override {
        holders[1] = {1};
        return false;
    }
};

TEST_F(SocketTableTest, UsesTheSlowerSourceWhenTheFasterFails) {
    SocketTable table(std::make_unique<BrokenSource>());
    const OpenSocket socket;
    SocketTable::Table rows;
    table.Read(rows);
    EXPECT_EQ(rows.count(static_cast<long>(socket.Inode())), 1U);
    EXPECT_EQ(table.GetCounters().m_fallbacks, 1U);
    EXPECT_EQ(table.GetCounters().m_tables, 1U);
}

TEST_F(SocketTableTest, CountsItsReadingsInALedger) {
    Read();
    Read();
    const SDK::Ledger books = m_table->GetLedger();
    EXPECT_EQ(books.m_name, "socket_tables");
    EXPECT_EQ(books.m_seen, 2U);
    EXPECT_EQ(books.m_delivered, 2U);
    EXPECT_TRUE(books.Balanced());
    EXPECT_EQ(books.m_trouble, "");
}

TEST_F(SocketTableTest, IsAddedToWhatIsThere) {
    SocketTable::Table table{{-1, nullptr}};
    m_table->Read(table);
    EXPECT_EQ(table.count(-1), 1U);
}

TEST(SocketTableOfTheUnprivileged, SaysOnceWhatItCannotSee) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer's own thread keeps the child from giving up its rights";
#endif
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give it up";
    }
    const Helper pod([] { EnterOwnNetwork(); });
    const pid_t child = ::fork();
    if (child == 0) {
        const CapturedLog log;
        SocketTable table(NetCollect::StartHolderSource("proc"));
        if (::unshare(CLONE_NEWUSER) != 0) {
            ::_exit(3);
        }
        SocketTable::Table rows;
        table.Read(rows);
        table.Read(rows);
        const auto warnings = log.Texts(Poco::Message::PRIO_WARNING);
        const bool told =
            warnings.size() == 1 && log.Contains(" processes cannot be told: Permission denied. ");
        ::_exit(table.GetCounters().m_hiddenProcesses >= 2 && told ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST(NetFullTask, GivesTheTable) {
    if (!MayLook()) {
        GTEST_SKIP() << "needs root";
    }
    const Poco::AutoPtr<NetCollect::NetFullTask> task = new NetCollect::NetFullTask(
        std::make_shared<SocketTable>(NetCollect::StartHolderSource("auto")));
    EXPECT_EQ(task->name(), "netproc_full_task");
    const OpenSocket socket;
    SocketTable::Table table;
    Poco::AutoPtr<NetCollect::NetFullTask>(task)->GetNetCacheMap(table);
    EXPECT_EQ(table.count(static_cast<long>(socket.Inode())), 1U);
}

TEST(NetCollectModule, RegistersItsTaskAndWritesItsBooks) {
    if (!MayLook()) {
        GTEST_SKIP() << "needs root";
    }
    const CapturedLog log;
    Poco::AutoPtr<Framework::Engine> engine = new Framework::Engine;
    engine->config().setString("net_collect.holders", "proc");
    engine->addSubsystem(new NetCollect::NetCollectModule);
    engine->StartModules();
    EXPECT_TRUE(log.Contains("The holders of sockets come from source(proc)."));
    auto* task = dynamic_cast<Engine::NetProcsFullTask*>(engine->FindTask("netproc_full_task"));
    ASSERT_NE(task, nullptr);
    SocketTable::Table table;
    task->GetNetCacheMap(table);
    engine->StopModules();
    EXPECT_TRUE(log.Contains("Socket tables: 1 whole, 0 not."));
    EXPECT_EQ(engine->FindTask("netproc_full_task"), nullptr);
}

TEST(NetCollectModule, DoesNotStartWithASourceThatItDoesNotKnow) {
    Poco::AutoPtr<Framework::Engine> engine = new Framework::Engine;
    engine->config().setString("net_collect.holders", "magic");
    engine->addSubsystem(new NetCollect::NetCollectModule);
    EXPECT_THROW(engine->StartModules(), Poco::Exception);
    engine->StopModules();
}

}  // namespace
