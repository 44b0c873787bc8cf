#include "Recorder.h"

#include "Settings.h"
#include "sdk/Ledger.h"
#include "support/CapturedLog.h"
#include "support/ScriptedTasks.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using TestSupport::WaitUntil;

class Recorder : public testing::Test {
protected:
    Recorder() { m_agent.Full().Add(TestSupport::Process(1, "init", "/sbin/init", 0)); }

    std::string Start() { return m_recorder.Start(m_agent.Engine(), m_settings); }
    bool Has(const std::string& text) const {
        return TestSupport::ReadText(m_path).find(text) != std::string::npos;
    }
    static std::string Trouble() {
        for (const SDK::Ledger& books : SDK::OpenLedger::ReadAll()) {
            if (books.m_name == "recording") {
                return books.m_trouble;
            }
        }
        return "none";
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "recording";
    TestSupport::CapturedLog m_log{Poco::Message::PRIO_NOTICE};
    TestSupport::ScriptedAgent m_agent;
    Agent::Settings m_settings;
    Agent::Recorder m_recorder;
};

TEST_F(Recorder, RecordsNothingUnlessAskedTo) {
    EXPECT_EQ(Start(), "");
    EXPECT_EQ(m_agent.Engine().FindTask("record_task"), nullptr);
    EXPECT_EQ(Trouble(), "none");
    m_recorder.TakePolicy("qemu_file_detect_feature", "{}");
}

TEST_F(Recorder, RecordsUntilItIsStopped) {
    m_settings.Set("record.file", m_path);
    m_settings.Set("record.megabytes", "5");
    EXPECT_EQ(Start(), "");
    EXPECT_TRUE(m_log.Contains("recorded in " + m_path + ", 5 megabytes at the most"));
    EXPECT_TRUE(WaitUntil([&] { return Has("snapshot"); }));
    m_recorder.Stop();
    EXPECT_TRUE(Has("\"reason\":\"stopped\""));
    EXPECT_EQ(m_agent.Engine().FindTask("record_task"), nullptr);
}

TEST_F(Recorder, TellsInTheStatusWhyItCannot) {
    m_settings.Set("record.file", m_folder.Write("recording", "x"));
    const std::string wrong = m_path + ": is not empty, and a recording overwrites nothing";
    EXPECT_EQ(Start(), wrong);
    EXPECT_EQ(Trouble(), "Nothing is recorded: " + wrong);
}

/// Stands under "filenotify_task".
class Notifier : public Framework::Task {
public:
    Notifier()
        : Framework::Task("filenotify_task", "", Framework::TaskCondition::RESIDENT_TASK, 64) {}
    ~Notifier() override = default;
};

TEST_F(Recorder, WatchesWhatTheFilePolicyInForceNames) {
    Poco::AutoPtr<Notifier> notifier(new Notifier);
    m_agent.Engine().RegisterTask(notifier.get(), true);
    m_settings.Set("record.file", m_path);
    ASSERT_EQ(Start(), "");
    const std::string file = "qemu_file_detect_feature";
    m_recorder.TakePolicy(file, R"({"content":{"senstive_dirs":["/etc","/srv"]}})");
    EXPECT_TRUE(WaitUntil([&] { return Has(R"("path":"/srv")"); }));
    m_recorder.TakePolicy("qemu_cmd_detect_feature", R"({"content":{"senstive_dirs":["/no"]}})");
    m_agent.Engine().DeliverMessage("record_task", TestSupport::Exited(5));
    EXPECT_TRUE(WaitUntil([&] { return Has("exit"); })) << "it has looked at the policies again";
    m_recorder.TakePolicy(file, R"({"enabled":false,"content":{"senstive_dirs":["/etc","/srv"]}})");
    EXPECT_TRUE(WaitUntil([&] { return Has(R"("event":"unwatch","path":"/srv")"); }));
    EXPECT_FALSE(Has("/no"));
    m_recorder.Stop();
    m_agent.Engine().UnRegisterTask("filenotify_task");
}

}  // namespace
