#include "FileNotifyTask.h"

#include "NotifierHarness.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "framework/Engine.h"
#include "support/CapturedLog.h"

#include <Poco/AutoPtr.h>

namespace {

using namespace FileNotifyTest;
using Engine::FileNotifyWatchMessage;
using TestSupport::CapturedLog;
using TestSupport::WaitUntil;

constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;

/// Asks for watches and takes the events, as a detection would.
class Asking : public Framework::Task {
public:
    Asking() : Framework::Task("asking", "", Framework::TaskCondition::RESIDENT_TASK, 1024) {}
    ~Asking() override = default;

    int Ask(const std::string& path, const _FileNotifyOpt& options,
            const std::vector<unsigned int>& masks = {1}) {
        return SendDirectMsg("filenotify_task",
                             new FileNotifyWatchMessage(this, path, masks, options));
    }
    int Add(const std::string& path) {
        _FileNotifyOpt options;
        options.m_add = true;
        options.m_recursive = true;
        return Ask(path, options);
    }
    int Remove(const std::string& path) {
        _FileNotifyOpt options;
        options.m_remove = true;
        options.m_recursive = true;
        return Ask(path, options);
    }
};

class FileNotifyTask : public NotifierTest {
protected:
    void SetUp() override {
        NotifierTest::SetUp();
        if (!IsSkipped()) {
            m_engine->RegisterTask(m_asking, true);
            ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
        }
    }
    void TearDown() override {
        m_engine->UnRegisterTask("filenotify_task");
        m_engine->UnRegisterTask("asking");
    }

    bool Logged(const std::string& text) {
        return WaitUntil([&] { return m_log.Contains(text); });
    }

    CapturedLog m_log;
    Poco::AutoPtr<Framework::Engine> m_engine = new Framework::Engine;
    Poco::AutoPtr<Asking> m_asking = new Asking;
    Poco::AutoPtr<FileNotify::FileNotifyTask> m_task = new FileNotify::FileNotifyTask(1000);
};

TEST_F(FileNotifyTask, SendsAccessesToWhoeverAsked) {
    const std::string file = File("shadow");
    ASSERT_EQ(m_asking->Add(m_folder.Path()), 0);
    ASSERT_TRUE(Logged("1 directories are watched."));
    const int reader = InChild([&] { ReadFile(file); });
    EXPECT_TRUE(WaitUntil([&] { return m_asking->GetInbox()->Depth() == 3; }));
    std::vector<std::shared_ptr<FileNotifyMessage>> events;
    Receive(m_asking->GetInbox(), events);
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[0]->GetMsgType(), "filenotify");
    EXPECT_EQ(events[0]->GetEventFilePath(), file);
    EXPECT_EQ(events[0]->GetEventProcessId(), reader);
}

TEST_F(FileNotifyTask, StopsOnRequest) {
    ASSERT_EQ(m_asking->Add(m_folder.Path()), 0);
    ASSERT_EQ(m_asking->Remove(m_folder.Path()), 0);
    EXPECT_TRUE(
        Logged("Directory(" + m_folder.Path() + ") is no longer watched for task(asking)."));
    InChild([&] { WriteFile(m_folder / "key"); });
    m_engine->UnRegisterTask("filenotify_task");
    EXPECT_EQ(m_asking->GetInbox()->Depth(), 0U);
    // The agent's own look into the folder may have been told, the writing was not.
    EXPECT_TRUE(m_log.Contains(" from the kernel, 0 of the agent, 0 outside, "));
    EXPECT_TRUE(m_log.Contains("File messages: 0 made, "));
}

TEST_F(FileNotifyTask, SaysThatARequestToStopHadNoRequestBefore) {
    m_asking->Remove("/etc");
    EXPECT_TRUE(Logged("Directory(/etc) is not watched for task(asking)."));
}

TEST_F(FileNotifyTask, IgnoresARequestThatNeitherAddsNorRemoves) {
    m_asking->Ask("/etc", _FileNotifyOpt());
    EXPECT_TRUE(
        Logged("Request of task(asking) for directory(/etc) is ignored: it must either add "
               "or remove."));
}

TEST_F(FileNotifyTask, IgnoresARequestThatAddsAndRemoves) {
    _FileNotifyOpt options;
    options.m_add = true;
    options.m_remove = true;
    m_asking->Ask("/etc", options);
    EXPECT_TRUE(Logged("is ignored: it must either add or remove."));
}

TEST_F(FileNotifyTask, IgnoresARequestForOtherMasks) {
    _FileNotifyOpt options;
    options.m_add = true;
    for (const std::vector<unsigned int>& masks :
         {std::vector<unsigned int>{}, std::vector<unsigned int>{2},
          std::vector<unsigned int>{1, 2}}) {
        m_log.Clear();
        m_asking->Ask("/etc", options, masks);
        EXPECT_TRUE(
            Logged("Request of task(asking) for directory(/etc) is ignored: the masks must "
                   "be {1}."));
    }
}

TEST_F(FileNotifyTask, SaysThatItDoesNotKnowAMessage) {
    m_asking->SendDirectMsg("filenotify_task", new Framework::Message("other"));
    EXPECT_TRUE(Logged("Task(filenotify_task) does not know messages of type(other)."));
}

TEST_F(FileNotifyTask, CanBeRegisteredAgainAndStartsWithNothing) {
    const std::string file = File("shadow");
    for (int i = 0; i < 3; ++i) {
        m_log.Clear();
        m_asking->Add(m_folder.Path());
        ASSERT_TRUE(Logged("1 directories are watched."));
        InChild([&] { ReadFile(file); });
        std::vector<std::shared_ptr<FileNotifyMessage>> events;
        EXPECT_TRUE(WaitUntil([&] {
            Receive(m_asking->GetInbox(), events);
            return events.size() == 3;
        }));
        m_engine->UnRegisterTask("filenotify_task");
        EXPECT_EQ(m_task->Notifier().Tree().RootCount(), 0U);
        ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    }
}

}  // namespace
