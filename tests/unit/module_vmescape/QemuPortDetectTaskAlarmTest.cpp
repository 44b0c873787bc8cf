#include "AskingReporter.h"
#include "OpenPortTask.h"
#include "sdk/JsonUtils.h"
#include "support/CapturedLog.h"
#include "support/FakeClock.h"

#include <gtest/gtest.h>

namespace {

using TestSupport::CapturedLog;
using TestSupport::FakeClock;

constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

class PortAlarm : public testing::Test {
protected:
    void Send(int pid, const std::string& port = "4444", const std::string& name = "qemu-kvm",
              const std::string& cmdline = "qemu-kvm -name guest=vm-01,debug-threads=on") {
        m_task->SendAlarm(name, pid, port, cmdline);
    }
    void Fill(int alarms) {
        for (int i = 0; i < alarms; ++i) {
            m_task->UpdateAlarmCache("qemu-kvm", i, "1", "");
        }
    }
    std::size_t Sent() { return m_agent.Reporter().Count(); }

    TestSupport::ScriptedAgent m_agent;
    FakeClock m_clock;
    CapturedLog m_log;
    OpenPortTaskPtr m_task = new OpenPortTask;
};

TEST_F(PortAlarm, IsOneDocumentWithAllItsFields) {
    m_clock.Set(1700000000);
    Send(101);
    ASSERT_EQ(Sent(), 1U);
    Json::Value alarm = m_agent.Reporter().Alarms().front();
    alarm.removeMember("event_id");  // differs every time
    EXPECT_EQ(
        SDK::JsonUtils::JsonToString(alarm),
        R"({"attack_phase":4,"attack_tag":2,"confidence":60,"detect_module":"vmescape_module",)"
        R"("event_category":2000,"event_classid":"vmescape_0003","event_count":1,)"
        R"("event_name":"Virtualization process access abnormal network port","event_type":2043,)"
        R"("forensic_info":{"abnormal_port":"4444","monitor_process":"qemu-kvm"},)"
        R"("occur_time":1700000000,"process_info":[{"process_name":"qemu-kvm",)"
        R"("process_pid":101}],"resource_info":{"vm_name":"vm-01"},"severity":3})");
}

TEST_F(PortAlarm, IsLoggedWithItsTextAndKept) {
    Send(101);
    EXPECT_EQ(m_log.Count(kInformation, "Send Alarm: " + m_agent.Reporter().Texts().front()), 1U);
    EXPECT_EQ(m_log.Count(kDebug,
                          "Update Alarm Cache Info{Process(name:qemu-kvm, pid:101), abnormal "
                          "port(4444)}"),
              1U);
    ASSERT_EQ(m_task->m_netWarnInfo.size(), 1U);
    EXPECT_EQ(m_task->m_netWarnInfo[0].time, m_clock.Now());
}

TEST_F(PortAlarm, IsSentThenLoggedThenKept) {
    std::size_t linesBefore = 1;
    std::size_t keptBefore = 1;
    m_agent.Engine().UnRegisterTask("data_comm_report_task");
    Poco::AutoPtr<AskingReporter> reporter = new AskingReporter([&] {
        linesBefore = m_log.Lines().size();
        keptBefore = m_task->m_netWarnInfo.size();
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

TEST_F(PortAlarm, LinesCarryTheirPlaceInTheSource) {
    Send(101);
    Send(101);
    Send(101, "4444", "");
    const auto lines = m_log.Lines();
    EXPECT_EQ(lines.size(), 4U);
    for (const CapturedLog::Line& line : lines) {
        EXPECT_EQ(line.file, "QemuPortDetectTaskAlarm.cpp") << line.text;
        EXPECT_GT(line.line, 0);
    }
}

TEST_F(PortAlarm, OfTheSameProcessAndPortIsNotSentAgain) {
    Send(101);
    Send(101);
    EXPECT_EQ(Sent(), 1U);
    const auto lines = m_log.Texts(kInformation);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines.back().rfind("Repeat Alarm: {", 0), 0U);
}

TEST_F(PortAlarm, ThatIsARepeatIsLoggedAsItWouldHaveBeenSent) {
    const std::string prefix = "Repeat Alarm: ";
    Send(101);
    Send(101);
    const std::string line = m_log.Lines().back().text;
    ASSERT_EQ(line.rfind(prefix, 0), 0U) << line;
    Json::Value repeated;
    SDK::JsonUtils::ParseJsonStr(line.c_str() + prefix.length(), line.length() - prefix.length(),
                                 repeated);
    Json::Value sent = m_agent.Reporter().Alarms().front();
    EXPECT_NE(repeated["event_id"], sent["event_id"]) << "built anew";
    repeated.removeMember("event_id");
    sent.removeMember("event_id");
    EXPECT_EQ(repeated, sent);
}

TEST_F(PortAlarm, OfAnotherPidPortOrNameIsSent) {
    Send(101);
    Send(102);
    Send(101, "4445");
    Send(101, "4444", "qemu-arm");
    EXPECT_EQ(Sent(), 4U);
}

TEST_F(PortAlarm, OfAProcessWithoutANameIsNotSent) {
    Send(101, "4444", "");
    EXPECT_EQ(Sent(), 0U);
    EXPECT_TRUE(m_task->m_netWarnInfo.empty());
    EXPECT_EQ(
        m_log.Count(kDebug, "Send Alarm: No alarm is sent because process(pid=101) name is empty."),
        1U);
}

TEST_F(PortAlarm, TakesTheNameOfTheMachineFromTheFirstArgumentOnlyWhenNulsSeparateThem) {
    Send(101, "4444", "qemu-kvm", std::string("qemu-kvm\0-name\0vm-01", 20));
    EXPECT_EQ(m_agent.Reporter().Alarms()[0]["resource_info"]["vm_name"].asString(), "Unknow");
}

TEST_F(PortAlarm, TakesNoNameOfTheMachineFromBehindANul) {
    Send(101, "4444", "qemu-kvm", std::string("qemu-kvm\0-name vm-01", 20));
    Send(102, "4444", "qemu-kvm", std::string("qemu-kvm -name vm-02\0-name guest=vm-01", 38));
    const std::vector<Json::Value> alarms = m_agent.Reporter().Alarms();
    ASSERT_EQ(alarms.size(), 2U);
    EXPECT_EQ(alarms[0]["resource_info"]["vm_name"].asString(), "Unknow");
    EXPECT_EQ(alarms[1]["resource_info"]["vm_name"].asString(), "vm-02");
}

TEST_F(PortAlarm, IsLoggedAndKeptEvenWhenNobodyReports) {
    m_agent.Engine().UnRegisterTask("data_comm_report_task");
    m_log.Clear();
    Send(101);
    Send(101);
    EXPECT_EQ(m_task->m_netWarnInfo.size(), 1U);
    const auto lines = m_log.Texts(kInformation);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].rfind("Send Alarm: {", 0), 0U);
    EXPECT_EQ(lines[1].rfind("Repeat Alarm: {", 0), 0U);
}

TEST_F(PortAlarm, CacheHoldsAThousandAndTheOldestMakesRoom) {
    Fill(999);
    Send(5000);
    EXPECT_EQ(m_task->m_netWarnInfo.size(), 1000U);
    EXPECT_EQ(m_task->m_netWarnInfo.front().pid, 0);
    Send(5001);
    EXPECT_EQ(m_task->m_netWarnInfo.size(), 1000U);
    EXPECT_EQ(m_task->m_netWarnInfo.front().pid, 1);
    EXPECT_EQ(m_task->m_netWarnInfo.back().pid, 5001);
    EXPECT_TRUE(m_task->IsNeedSendAlarm("qemu-kvm", 0, "1"));
    EXPECT_FALSE(m_task->IsNeedSendAlarm("qemu-kvm", 1, "1"));
}

TEST_F(PortAlarm, ThatMadeRoomIsSentAgain) {
    for (int pid = 1; pid <= 1001; ++pid) {
        Send(pid);
    }
    Send(1);
    EXPECT_EQ(Sent(), 1002U);
    EXPECT_FALSE(m_log.Contains("Repeat Alarm"));
}

TEST_F(PortAlarm, OlderThan299SecondsIsForgotten) {
    Fill(1);
    m_clock.Advance(299);
    m_task->CleanWarnedInfo();
    EXPECT_EQ(m_task->m_netWarnInfo.size(), 1U);
    m_clock.Advance(1);
    m_task->CleanWarnedInfo();
    EXPECT_TRUE(m_task->m_netWarnInfo.empty());
    EXPECT_EQ(m_log.Count(kDebug, "Clean net warned information in alarm cache"), 1U);
}

TEST_F(PortAlarm, FromTheFutureStays) {
    Fill(1);
    m_clock.Advance(-1000);
    m_task->CleanWarnedInfo();
    EXPECT_EQ(m_task->m_netWarnInfo.size(), 1U);
}

TEST_F(PortAlarm, CleaningKeepsTheOrderOfTheRest) {
    Fill(3);
    m_clock.Advance(200);
    m_task->UpdateAlarmCache("qemu-kvm", 7, "1", "");
    m_task->UpdateAlarmCache("qemu-kvm", 8, "1", "");
    m_clock.Advance(150);
    m_task->CleanWarnedInfo();
    ASSERT_EQ(m_task->m_netWarnInfo.size(), 2U);
    EXPECT_EQ(m_task->m_netWarnInfo[0].pid, 7);
    EXPECT_EQ(m_log.Count(kDebug, "Clean net warned information in alarm cache"), 3U);
}

}  // namespace
