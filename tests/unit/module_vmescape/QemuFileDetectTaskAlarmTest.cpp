#include "AskingReporter.h"
#include "OpenFileTask.h"
#include "sdk/JsonUtils.h"
#include "support/CapturedLog.h"
#include "support/FakeClock.h"

#include <gtest/gtest.h>

namespace {

using TestSupport::CapturedLog;
using TestSupport::FakeClock;

constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

class FileAlarm : public testing::Test {
protected:
    FileAlarm() {
        m_task->m_monitorCmdlineMap["qemu-kvm"] = "qemu-kvm -name guest=vm-01,debug-threads=on";
    }

    void Send(int pid, const std::string& name = "cat", const std::string& path = "/etc/shadow",
              const std::string& action = "open", const std::string& machine = "qemu-kvm") {
        m_task->SendAlarm(machine, name, pid, path, action);
    }
    void Fill(int alarms) {
        for (int i = 0; i < alarms; ++i) {
            m_task->UpdateAlarmCache("cat", i, "/x", "open");
        }
    }
    std::size_t Sent() { return m_agent.Reporter().Count(); }

    /// The alarm in the last line, which has to be about a repeat.
    Json::Value Repeated() {
        const std::string prefix = "Repeat Alarm: ";
        const std::string line = m_log.Lines().back().text;
        EXPECT_EQ(line.rfind(prefix, 0), 0U) << line;
        Json::Value alarm;
        SDK::JsonUtils::ParseJsonStr(line.c_str() + prefix.length(),
                                     line.length() - prefix.length(), alarm);
        return alarm;
    }

    TestSupport::ScriptedAgent m_agent;
    FakeClock m_clock;
    CapturedLog m_log;
    OpenFileTaskPtr m_task = new OpenFileTask;
};

TEST_F(FileAlarm, IsOneDocumentWithAllItsFields) {
    m_clock.Set(1700000000);
    Send(101);
    ASSERT_EQ(Sent(), 1U);
    Json::Value alarm = m_agent.Reporter().Alarms().front();
    alarm.removeMember("event_id");  // differs every time
    EXPECT_EQ(
        SDK::JsonUtils::JsonToString(alarm),
        R"({"attack_phase":4,"attack_tag":2,"confidence":60,"detect_module":"vmescape_module",)"
        R"("event_category":2000,"event_classid":"vmescape_0002","event_count":1,)"
        R"("event_name":"Virtualization process access sensitive file","event_type":2043,)"
        R"("file_info":[{"file_action":"open","file_path":"/etc/shadow"}],)"
        R"("forensic_info":{"monitor_process":"qemu-kvm"},)"
        R"("occur_time":1700000000,"process_info":[{"process_name":"cat","process_pid":101}],)"
        R"("resource_info":{"vm_name":"vm-01"},"severity":3})");
}

TEST_F(FileAlarm, IsLoggedWithItsTextAndKept) {
    Send(101);
    EXPECT_EQ(m_log.Count(kInformation, "Send Alarm: " + m_agent.Reporter().Texts().front()), 1U);
    EXPECT_EQ(m_log.Count(kDebug,
                          "Update Alarm Cache Info{Process(name:cat, "
                          "pid:101),File(path:/etc/shadow,action:open)}"),
              1U);
}

TEST_F(FileAlarm, IsKeptWithTheTimeOfItsSending) {
    m_clock.Advance(1000);
    Send(101);
    ASSERT_EQ(m_task->m_fileWarnInfo.size(), 1U);
    const auto& kept = m_task->m_fileWarnInfo[0];
    EXPECT_EQ(kept.time, m_clock.Now());
    EXPECT_EQ(kept.pid, 101);
    EXPECT_EQ(kept.processName, "cat");
    EXPECT_EQ(kept.filePath, "/etc/shadow");
    EXPECT_EQ(kept.fileAction, "open");
}

TEST_F(FileAlarm, IsSentThenLoggedThenKept) {
    std::size_t linesBefore = 1;
    std::size_t keptBefore = 1;
    m_agent.Engine().UnRegisterTask("data_comm_report_task");
    Poco::AutoPtr<AskingReporter> reporter = new AskingReporter([&] {
        linesBefore = m_log.Lines().size();
        keptBefore = m_task->m_fileWarnInfo.size();
    });
    ASSERT_EQ(m_agent.Engine().RegisterTask(reporter, true), 0);
    m_log.Clear();
    Send(101);
    EXPECT_EQ(reporter->Count(), 1U);
    EXPECT_EQ(linesBefore, 0U);
    EXPECT_EQ(keptBefore, 0U);
    const auto lines = m_log.Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text.rfind("Send Alarm: {", 0), 0U);
    EXPECT_EQ(lines[1].text.rfind("Update Alarm Cache Info{", 0), 0U);
}

TEST_F(FileAlarm, IsLoggedAndKeptEvenWhenNobodyReports) {
    m_agent.Engine().UnRegisterTask("data_comm_report_task");
    m_log.Clear();
    Send(101);
    Send(101);
    EXPECT_EQ(m_task->m_fileWarnInfo.size(), 1U);
    const auto lines = m_log.Texts(kInformation);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].rfind("Send Alarm: {", 0), 0U);
    EXPECT_EQ(lines[1].rfind("Repeat Alarm: {", 0), 0U);
}

TEST_F(FileAlarm, OfTheSameAccessIsNotSentAgain) {
    Send(101);
    Send(101);
    EXPECT_EQ(Sent(), 1U);
    const auto lines = m_log.Texts(kInformation);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines.back().rfind("Repeat Alarm: {", 0), 0U);
}

TEST_F(FileAlarm, OfAnotherPidNamePathOrActionIsSent) {
    Send(101);
    Send(102);
    Send(101, "tac");
    Send(101, "cat", "/etc/gshadow");
    Send(101, "cat", "/etc/shadow", "modify");
    EXPECT_EQ(Sent(), 5U);
}

TEST_F(FileAlarm, OfTheSameAccessBelowAnotherMachineIsARepeat) {
    Send(101);
    Send(101, "cat", "/etc/shadow", "open", "qemu-arm");
    EXPECT_EQ(Sent(), 1U);
    EXPECT_EQ(Repeated()["forensic_info"]["monitor_process"].asString(), "qemu-arm");
}

TEST_F(FileAlarm, ThatIsARepeatIsLoggedAsItWouldHaveBeenSent) {
    Send(101);
    Send(101);
    Json::Value sent = m_agent.Reporter().Alarms().front();
    Json::Value repeated = Repeated();
    EXPECT_NE(repeated["event_id"], sent["event_id"]) << "built anew";
    repeated.removeMember("event_id");
    sent.removeMember("event_id");
    EXPECT_EQ(repeated, sent);
}

TEST_F(FileAlarm, OfAProcessWithoutANameIsNotSent) {
    Send(101, "");
    EXPECT_EQ(Sent(), 0U);
    EXPECT_TRUE(m_task->m_fileWarnInfo.empty());
    EXPECT_EQ(
        m_log.Count(kDebug, "Send Alarm: No alarm is sent because process(pid=101) name is empty."),
        1U);
}

TEST_F(FileAlarm, NamesAMachineWhoseCommandLineIsNotKnownUnknown) {
    Send(101, "cat", "/etc/shadow", "open", "qemu-arm");
    EXPECT_EQ(m_agent.Reporter().Alarms()[0]["resource_info"]["vm_name"].asString(), "Unknow");
}

TEST_F(FileAlarm, CacheHoldsAThousandAndTheOldestMakesRoom) {
    Fill(999);
    m_task->UpdateAlarmCache("cat", 5000, "/x", "open");
    EXPECT_EQ(m_task->m_fileWarnInfo.size(), 1000U);
    EXPECT_EQ(m_task->m_fileWarnInfo.front().pid, 0);
    m_task->UpdateAlarmCache("cat", 5001, "/x", "open");
    EXPECT_EQ(m_task->m_fileWarnInfo.size(), 1000U);
    EXPECT_EQ(m_task->m_fileWarnInfo.front().pid, 1);
    EXPECT_EQ(m_task->m_fileWarnInfo.back().pid, 5001);
    EXPECT_TRUE(m_task->IsNeedSendAlarm("cat", 0, "/x", "open"));
    EXPECT_FALSE(m_task->IsNeedSendAlarm("cat", 1, "/x", "open"));
}

TEST_F(FileAlarm, ThatMadeRoomIsSentAgain) {
    for (int pid = 1; pid <= 1001; ++pid) {
        Send(pid);
    }
    Send(1);
    EXPECT_EQ(Sent(), 1002U);
    EXPECT_FALSE(m_log.Contains("Repeat Alarm"));
}

TEST_F(FileAlarm, CacheKeepsWhatIsThereTwice) {
    Fill(1);
    Fill(1);
    EXPECT_EQ(m_task->m_fileWarnInfo.size(), 2U);
}

TEST_F(FileAlarm, Of300SecondsIsForgotten) {
    Fill(1);
    m_clock.Advance(299);
    m_task->CleanWarnedInfo();
    EXPECT_EQ(m_task->m_fileWarnInfo.size(), 1U);
    m_clock.Advance(1);
    m_task->CleanWarnedInfo();
    EXPECT_TRUE(m_task->m_fileWarnInfo.empty());
    EXPECT_EQ(m_log.Count(kDebug, "Clean file warned information in alarm cache"), 1U);
}

TEST_F(FileAlarm, FromTheFutureStays) {
    Fill(1);
    m_clock.Advance(-1000);
    m_task->CleanWarnedInfo();
    EXPECT_EQ(m_task->m_fileWarnInfo.size(), 1U);
}

TEST_F(FileAlarm, CleaningKeepsTheOrderOfTheRest) {
    Fill(2);
    m_clock.Advance(200);
    m_task->UpdateAlarmCache("cat", 7, "/x", "open");
    m_task->UpdateAlarmCache("cat", 8, "/x", "open");
    m_clock.Advance(150);
    m_task->CleanWarnedInfo();
    ASSERT_EQ(m_task->m_fileWarnInfo.size(), 2U);
    EXPECT_EQ(m_task->m_fileWarnInfo[0].pid, 7);
    EXPECT_EQ(m_log.Count(kDebug, "Clean file warned information in alarm cache"), 2U);
}

}  // namespace
