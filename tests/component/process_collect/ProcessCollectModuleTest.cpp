#include "ProcessCollectModule.h"

#include "CollectorHarness.h"
#include "framework/Engine.h"
#include "process_collect/ProcsFullTask.h"
#include "process_collect/ProcsRegistMessage.h"
#include "support/CapturedLog.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/SharedLibrary.h>
#include <Poco/Util/LayeredConfiguration.h>

#include <atomic>

namespace ProcessCollectTest {

namespace {

using Framework::Engine;

/// A task that keeps the process events that it is sent.
class Subscriber : public Framework::Task {
public:
    Subscriber()
        : Framework::Task("subscriber", "", Framework::TaskCondition::RESIDENT_TASK, 1 << 14) {}

    void Register() {
        for (unsigned int type = ProcsMessage::FORK; type <= ProcsMessage::EXIT; ++type) {
            EXPECT_EQ(
                SendDirectMsg("procs_real_task", new ::Engine::ProcsRegistMessage(type, this)), 0);
        }
    }

    void UnRegister() {
        for (unsigned int type = ProcsMessage::FORK; type <= ProcsMessage::EXIT; ++type) {
            EXPECT_EQ(
                SendDirectMsg("procs_real_task", new ::Engine::ProcsUnRegistMessage(type, this)),
                0);
        }
    }

    /// The flags of the events about a process, in the order of their arrival.
    std::vector<unsigned int> FlagsOf(int pid) {
        std::vector<std::shared_ptr<Framework::Message>> messages;
        BulkRecvMsg(messages, 1 << 14);
        for (const auto& message : messages) {
            m_events.push_back(std::static_pointer_cast<ProcsMessage>(message));
        }
        std::vector<unsigned int> flags;
        for (const auto& event : m_events) {
            if (event->GetProcPid() == pid) {
                flags.push_back(event->GetProcFlag());
            }
        }
        return flags;
    }

private:
    std::vector<std::shared_ptr<ProcsMessage>> m_events;
};

/// The module as the agent runs it: loaded from its library, in a real engine.
class ProcessCollectModuleTest : public testing::Test {
protected:
    void SetUp() override {
        if (!MayUseKernel()) {
            GTEST_SKIP() << "needs root";
        }
    }

    void Load() {
        m_library.load(BUILD_FOLDER "/module/libprocess_collect_module.so");
        const auto create =
            reinterpret_cast<Framework::CreateModuleFunction>(m_library.getSymbol("CreateModule"));
        m_engine->addSubsystem(create());
    }

    ::Engine::ProcsFullTask* FullTask() {
        return dynamic_cast<::Engine::ProcsFullTask*>(m_engine->FindTask("procs_full_task"));
    }

    Poco::SharedLibrary m_library;  // outlives the engine, which holds the module
    TestSupport::CapturedLog m_log;
    Poco::AutoPtr<Engine> m_engine = new Engine;
};

const std::vector<unsigned int> kWholeLife{ProcsMessage::FORK, ProcsMessage::EXEC,
                                           ProcsMessage::EXIT};

}  // namespace

TEST_F(ProcessCollectModuleTest, SubscriberGetsTheWholeLifeOfACommandInOrder) {
    Load();
    m_engine->StartModules();
    Subscriber subscriber;
    subscriber.Register();
    const int pid = Spawn({"/bin/true", "whole life"});
    Reap(pid);
    EXPECT_TRUE(TestSupport::WaitUntil(
        [&] { return subscriber.FlagsOf(pid).size() == kWholeLife.size(); }));
    EXPECT_EQ(subscriber.FlagsOf(pid), kWholeLife);
    m_engine->StopModules();
}

TEST_F(ProcessCollectModuleTest, NothingHappensBetweenRegistrationAndSnapshotUnseen) {
    Load();
    m_engine->StartModules();
    Subscriber subscriber;
    subscriber.Register();
    const int pid = Spawn({"/bin/sleep", "30"});
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> procs;
    FullTask()->GetProcsMap(procs);
    ASSERT_EQ(procs.count(pid), 1U);
    EXPECT_EQ(subscriber.FlagsOf(pid).at(0), static_cast<unsigned int>(ProcsMessage::FORK));
    ::kill(pid, SIGKILL);
    Reap(pid);
    m_engine->StopModules();
}

TEST_F(ProcessCollectModuleTest, UnregisteredTaskGetsNothingMore) {
    Load();
    m_engine->StartModules();
    Subscriber first;
    Subscriber second;
    first.Register();
    second.Register();
    first.UnRegister();
    const int pid = Spawn({"/bin/true"});
    Reap(pid);
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return second.FlagsOf(pid).size() == 3; }));
    EXPECT_TRUE(first.FlagsOf(pid).empty());
    m_engine->StopModules();
}

TEST_F(ProcessCollectModuleTest, SnapshotsAreTheReceiversOwn) {
    Load();
    m_engine->StartModules();
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> procs;
    FullTask()->GetProcsMap(procs);
    ASSERT_EQ(procs.count(::getpid()), 1U);
    procs[::getpid()]->m_name = "overwritten";
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> again;
    FullTask()->GetProcsMap(again);
    EXPECT_NE(again[::getpid()]->m_name, "overwritten");
    m_engine->StopModules();
}

TEST_F(ProcessCollectModuleTest, LookupsKnowACommandAfterItsEnd) {
    Load();
    m_engine->StartModules();
    const int pid = Spawn({"/bin/true", "short", "lived"});
    Reap(pid);
    SDK::ProcessUtils::procStatus status;
    ASSERT_EQ(SDK::ProcessUtils::GetProcessStatusInfo(pid, status), 0);
    EXPECT_EQ(status.m_name, "true");
    EXPECT_EQ(status.m_ppid, ::getpid());
    std::string cmdline;
    EXPECT_EQ(SDK::ProcessUtils::GetProcessCmdline(pid, cmdline, 4096), 0);
    EXPECT_EQ(cmdline, "/bin/true short lived");
    m_engine->StopModules();
    EXPECT_EQ(SDK::ProcessUtils::GetProcessStatusInfo(pid, status), -1);
}

TEST_F(ProcessCollectModuleTest, StartNamesTheSourceAndStopWritesTheBooks) {
    Load();
    m_engine->config().setString("process_collect.source", "connector");
    m_engine->StartModules();
    EXPECT_TRUE(m_log.Contains("Process events come from source(connector), "));
    m_engine->StopModules();
    EXPECT_TRUE(m_log.Contains("Process events of source(connector): "));
}

TEST_F(ProcessCollectModuleTest, UnknownSourceIsRefused) {
    Load();
    m_engine->config().setString("process_collect.source", "tea leaves");
    EXPECT_THROW(m_engine->StartModules(), Poco::Exception);
    EXPECT_EQ(
        m_log.Count(Poco::Message::PRIO_ERROR,
                    "Configuration process_collect.source is tea leaves, expected auto, bpf or "
                    "connector."),
        1U);
}

TEST_F(ProcessCollectModuleTest, BacklogOutsideItsBoundsIsLoggedAndReplaced) {
    Load();
    m_engine->config().setString("process_collect.backlog", "0");
    m_engine->StartModules();
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_ERROR,
                          "Configuration process_collect.backlog is 0, expected 1 to 4294967295. "
                          "65536 is used."),
              1U);
    m_engine->StopModules();
}

TEST_F(ProcessCollectModuleTest, StartsAndStopsManyTimes) {
    Load();
    for (int i = 0; i < 5; ++i) {
        m_engine->StartModules();
        EXPECT_NE(FullTask(), nullptr);
        m_engine->StopModules();
        EXPECT_EQ(FullTask(), nullptr);
    }
}

TEST_F(ProcessCollectModuleTest, WithoutPrivilegesOneErrorSaysWhatIsMissing) {
    Load();
    const int child = ::fork();
    if (child == 0) {
        // Everything below happens to a process of no rights; its exit code tells the test.
        const bool dropped = ::setresuid(65534, 65534, 65534) == 0;
        bool refused = false;
        try {
            m_engine->StartModules();
        } catch (const Poco::Exception&) {
            refused = true;
        }
        const bool said = m_log.Contains("Needed: CAP_BPF and CAP_PERFMON for bpf");
        ::_exit(dropped && refused && said && m_log.Texts(Poco::Message::PRIO_ERROR).size() == 1
                    ? 0
                    : 1);
    }
    EXPECT_EQ(Reap(child), 0);
}

}  // namespace ProcessCollectTest
