#include "RecordTask.h"

#include "RecordingText.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "net_collect/NetProcsFullTask.h"
#include "sdk/ProcessUtils.h"
#include "support/ScriptedTasks.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <sstream>

namespace {

using Agent::RecordedEvent;
using Agent::RecordTask;
using Engine::FileNotifyMessage;
using Kind = RecordedEvent::Kind;
using TestSupport::Process;
using TestSupport::WaitUntil;
using Strings = std::vector<std::string>;

constexpr auto kResident = Framework::TaskCondition::RESIDENT_TASK;

/// Stands under "filenotify_task" and notes what is asked for: "+/etc" and "-/etc".
class ScriptedNotifier : public Framework::Task {
public:
    ScriptedNotifier() : Framework::Task("filenotify_task", "", kResident, 4) {}
    ~ScriptedNotifier() override = default;

    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        const auto* request = dynamic_cast<Engine::FileNotifyWatchMessage*>(message.get());
        EXPECT_NE(request, nullptr);
        EXPECT_TRUE(request->GetOptions().m_recursive);
        EXPECT_NE(request->GetOptions().m_add, request->GetOptions().m_remove);
        EXPECT_EQ(request->GetMasks(), std::vector<unsigned int>{1});
        const SDK::LockGuard lock(m_mutex);
        m_requests.push_back((request->GetOptions().m_add ? '+' : '-') + request->GetPath());
        return 1;
    }

    Strings Requests() {
        const SDK::LockGuard lock(m_mutex);
        return m_requests;
    }

private:
    SDK::Mutex m_mutex;
    Strings m_requests SDK_GUARDED_BY(m_mutex);
};

/// Stands under "netproc_full_task".
class ScriptedSockets : public Engine::NetProcsFullTask {
public:
    ScriptedSockets() : Engine::NetProcsFullTask("netproc_full_task", "", kResident, 1) {}
    ~ScriptedSockets() override = default;

    void GetNetCacheMap(Agent::SocketMap& table) override {
        const SDK::LockGuard lock(m_mutex);
        for (const auto& [inode, port] : m_ports) {
            table[inode] = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
            table[inode]->m_port = port;
        }
    }

    void Open(long inode, int port) {
        const SDK::LockGuard lock(m_mutex);
        m_ports[inode] = port;
    }
    void Close(long inode) {
        const SDK::LockGuard lock(m_mutex);
        m_ports.erase(inode);
    }

private:
    SDK::Mutex m_mutex;
    std::map<long, int> m_ports SDK_GUARDED_BY(m_mutex);
};

class RecordTaskTest : public testing::Test {
protected:
    RecordTaskTest() {
        m_agent.Engine().RegisterTask(m_notifier, true);
        m_agent.Full().Add(Process(1, "init", "/sbin/init", 0));
        m_agent.Full().Add(Process(100, "qemu", "qemu -name guest=vm"));
    }
    ~RecordTaskTest() override {
        Stop();
        SDK::ProcessUtils::SetLookup(nullptr);
        m_agent.Engine().UnRegisterTask("netproc_full_task");  // where there is one
        m_agent.Engine().UnRegisterTask("filenotify_task");
    }

    void HaveSockets() { m_agent.Engine().RegisterTask(m_sockets, true); }

    void Start(std::uint64_t limit = 1 << 20) {
        std::string wrong;
        m_task = new RecordTask(
            std::make_unique<Agent::Recording>(Agent::RecordingFile::Open(m_path, limit, wrong)));
        ASSERT_EQ(m_agent.Engine().RegisterTask(m_task, false), 0);
    }

    void Stop() { m_agent.Engine().UnRegisterTask(RecordTask::NAME); }

    void Send(std::shared_ptr<Framework::Message> message) { m_task->EnqueueMsg(message); }
    void SendFile(int pid, const std::string& path) {
        Send(std::make_shared<FileNotifyMessage>(pid, int{FileNotifyMessage::OPEN}, path));
    }

    /// What has been recorded so far, one short text an event: "exec 101".
    Strings Recorded() const {
        Strings texts;
        std::istringstream lines(TestSupport::ReadText(m_path));
        std::string line;
        std::getline(lines, line);
        while (std::getline(lines, line)) {
            RecordedEvent event;
            EXPECT_EQ(Agent::RecordingText::Read(line, event), "") << line;
            texts.push_back(Agent::RecordingText::Name(event.m_kind) + ' ' + Subject(event));
        }
        return texts;
    }

    bool WaitFor(const std::string& text) const {
        return WaitUntil([&] {
            const Strings texts = Recorded();
            return std::find(texts.begin(), texts.end(), text) != texts.end();
        });
    }

    static std::string Subject(const RecordedEvent& event) {
        switch (event.m_kind) {
            case Kind::FILE:
                return event.m_path + (event.m_regular ? "" : " gone");
            case Kind::WATCH:
            case Kind::UNWATCH:
                return event.m_path;
            case Kind::SOCKETS:
                return std::to_string(event.m_opened.size()) + " opened";
            case Kind::GAP:
                return std::to_string(event.m_lost) + ' ' + event.m_reason;
            case Kind::END:
                return event.m_reason;
            default:
                return std::to_string(event.m_process.m_pid);
        }
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "recording";
    TestSupport::ScriptedAgent m_agent;
    Poco::AutoPtr<ScriptedNotifier> m_notifier = new ScriptedNotifier;
    Poco::AutoPtr<ScriptedSockets> m_sockets = new ScriptedSockets;
    Poco::AutoPtr<RecordTask> m_task;
};

TEST_F(RecordTaskTest, SubscribesFirstAndTakesASnapshotThen) {
    HaveSockets();
    m_sockets->Open(7, 80);
    Start();
    EXPECT_EQ(m_agent.Real().Requests().size(), 3U);
    EXPECT_TRUE(WaitFor("sockets 1 opened"));
    Stop();
    EXPECT_EQ(Recorded(),
              (Strings{"snapshot 1", "snapshot 100", "sockets 1 opened", "end stopped"}));
    EXPECT_EQ(m_agent.Real().Requests().size(), 6U) << "all three are ended";
}

TEST_F(RecordTaskTest, RecordsWhatProcessesDo) {
    Start();
    const auto sh = Process(101, "sh", "sh -c id", 100, "qemu");
    Send(TestSupport::Event(Engine::ProcsMessage::FORK, 101, sh));
    Send(TestSupport::Started(sh));
    Send(TestSupport::Exited(101));
    EXPECT_TRUE(WaitFor("exit 101"));
    Stop();
    EXPECT_EQ(Recorded(), (Strings{"snapshot 1", "snapshot 100", "fork 101", "exec 101", "exit 101",
                                   "end stopped"}));
}

TEST_F(RecordTaskTest, RecordsWhetherAFileIsThere) {
    const std::string there = m_folder.Write("there", "");
    Start();
    SendFile(100, there);
    SendFile(100, m_folder / "gone");
    EXPECT_TRUE(WaitFor("file " + there));
    EXPECT_TRUE(WaitFor("file " + m_folder / "gone" + " gone"));
}

TEST_F(RecordTaskTest, PutsWhatTheCollectorKnowsByThenBeforeAnAccess) {
    Start();
    ASSERT_TRUE(WaitFor("snapshot 100"));
    // A collector that tells only when it is asked, as a busy one may.
    SDK::ProcessUtils::SetLookup([this](int pid, SDK::ProcessUtils::procRecord&) {
        Send(TestSupport::Started(Process(pid, "cat", "cat", 100, "qemu")));
        if (pid == 101) {
            SendFile(102, "/b");
        }
        return false;
    });
    SendFile(101, "/a");
    EXPECT_TRUE(WaitFor("file /b gone"));
    Stop();
    EXPECT_EQ(Recorded(), (Strings{"snapshot 1", "snapshot 100", "exec 101", "file /a gone",
                                   "exec 102", "file /b gone", "end stopped"}));
}

TEST_F(RecordTaskTest, WatchesTheDirectoriesOfThePolicyInForce) {
    Start();
    m_task->TakeDirectories({"/etc", "/srv"});
    EXPECT_TRUE(WaitFor("watch /srv"));
    m_task->TakeDirectories({"/srv", "/var"});
    EXPECT_TRUE(WaitFor("watch /var"));
    EXPECT_TRUE(WaitFor("unwatch /etc"));
    Stop();
    EXPECT_EQ(m_notifier->Requests(),
              (Strings{"+/etc", "+/srv", "-/etc", "+/var", "-/srv", "-/var"}));
}

TEST_F(RecordTaskTest, SaysWhereEventsAreMissingAndTakesAnotherSnapshot) {
    Start();
    ASSERT_TRUE(WaitFor("snapshot 100"));
    m_agent.Full().Add(Process(200, "late", "late"));
    m_task->GetInbox()->CountLost(5);
    Send(TestSupport::Exited(1));
    ASSERT_TRUE(WaitFor("snapshot 200"));
    EXPECT_TRUE(WaitFor("gap 5 behind"));
    EXPECT_TRUE(WaitUntil([] {
        const auto ledgers = SDK::OpenLedger::ReadAll();
        return std::any_of(ledgers.begin(), ledgers.end(), [](const SDK::Ledger& books) {
            return books.m_name == "recording" && books.Lost() == 5 && books.Balanced();
        });
    }));
}

TEST_F(RecordTaskTest, SaysWhatTheKernelHadNoRoomFor) {
    std::atomic<std::uint64_t> lost{7};
    const SDK::OpenLedger collector([&lost] {
        SDK::Ledger books;
        books.m_name = "process_events";
        books.m_lost["in_kernel"] = lost;
        return books;
    });
    Start();
    ASSERT_TRUE(WaitFor("snapshot 100"));
    lost = 10;
    Stop();
    EXPECT_EQ(Recorded(), (Strings{"snapshot 1", "snapshot 100", "gap 3 process_events in_kernel",
                                   "end stopped"}));
}

TEST_F(RecordTaskTest, SaysThatThereAreNoSockets) {
    HaveSockets();
    Start();
    EXPECT_TRUE(WaitFor("sockets 0 opened"));
}

TEST_F(RecordTaskTest, RecordsWhatWaitsAndTheLastSocketsWhenItIsStopped) {
    HaveSockets();
    m_sockets->Open(6, 79);
    Start();
    ASSERT_TRUE(WaitFor("sockets 1 opened"));
    m_sockets->Close(6);
    m_sockets->Open(7, 80);
    for (int pid = 0; pid < 5000; ++pid) {
        Send(TestSupport::Exited(1000 + pid));
    }
    Stop();
    const Strings texts = Recorded();
    ASSERT_EQ(texts.size(), 5005U);
    EXPECT_EQ(texts[5003], "sockets 1 opened");
    EXPECT_EQ(texts[5004], "end stopped");
    EXPECT_EQ(TestSupport::ReadText(m_path).find("\"closed\":[6]"), std::string::npos)
        << "the detection may not have looked yet";
}

TEST_F(RecordTaskTest, EndsItsSubscriptionsWhenTheRecordingIsFull) {
    Start(2000);
    ASSERT_TRUE(WaitFor("snapshot 100"));
    m_task->TakeDirectories({"/etc"});
    ASSERT_TRUE(WaitFor("watch /etc"));
    for (int pid = 0; pid < 100; ++pid) {
        Send(TestSupport::Exited(1000 + pid));
    }
    EXPECT_TRUE(WaitUntil([&] { return m_agent.Real().Requests().size() == 6; }));
    EXPECT_TRUE(WaitUntil([&] { return m_notifier->Requests() == (Strings{"+/etc", "-/etc"}); }));
    EXPECT_EQ(Recorded().back(), "end full");
}

}  // namespace
