#include "OpenCmdTask.h"
#include "sdk/JsonUtils.h"
#include "sdk/ProcessUtils.h"
#include "support/CapturedLog.h"
#include "support/FakeClock.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using TestSupport::CapturedLog;
using TestSupport::FakeClock;
using TestSupport::Process;
using TestSupport::ProcInfoPtr;

constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

class CmdAlarm : public testing::Test {
protected:
    CmdAlarm() {
        m_task->Use({DENY_RULE});
        m_log.Clear();
        m_task->m_procCmdCache["qemu-kvm"] = "qemu-kvm -name guest=vm-01,debug-threads=on";
    }

    void Send(int pid, const std::string& name = "wget", int ppid = 100,
              const std::string& parent = "qemu-kvm") {
        m_task->SendAlarm(Process(pid, name, name + " x", ppid, parent), "qemu-kvm", "shell");
    }
    std::size_t Sent() { return m_agent.Reporter().Count(); }

    TestSupport::ScriptedAgent m_agent;
    CapturedLog m_log;
    OpenCmdTaskPtr m_task = new OpenCmdTask;
};

TEST_F(CmdAlarm, IsOneDocumentWithAllItsFields) {
    FakeClock clock;
    clock.Set(1700000000);
    Send(101);
    ASSERT_EQ(Sent(), 1U);
    Json::Value alarm = m_agent.Reporter().Alarms().front();
    alarm.removeMember("event_id");  // differs every time
    EXPECT_EQ(
        SDK::JsonUtils::JsonToString(alarm),
        R"({"attack_phase":4,"attack_tag":2,"confidence":60,"detect_module":"vmescape_module",)"
        R"("event_category":2000,"event_classid":"vmescape_0001","event_count":1,)"
        R"("event_name":"Virtualization process execute sensitive command","event_type":2043,)"
        R"("forensic_info":{"escape_mode":"shell","monitor_process":"qemu-kvm"},)"
        R"("occur_time":1700000000,"process_info":[{"parent_process_name":"qemu-kvm",)"
        R"("parent_process_pid":100,"process_cmdline":"wget x","process_name":"wget",)"
        R"("process_pid":101}],"resource_info":{"vm_name":"vm-01"},"severity":3})");
}

TEST_F(CmdAlarm, IsLoggedWithItsText) {
    Send(101);
    EXPECT_EQ(m_log.Count(kInformation, "Send Alarm: " + m_agent.Reporter().Texts().front()), 1U);
    EXPECT_EQ(m_log.Count(kDebug,
                          "Update Alarm Cache Info{Process(name:qemu-kvm, pid:100) "
                          "CmdProcess(name:wget, pid:101, cmdline(wget x)}"),
              1U);
}

TEST_F(CmdAlarm, OfTheSamePairIsNotSentAgain) {
    Send(101);
    Send(101);
    EXPECT_EQ(Sent(), 1U);
    const auto lines = m_log.Texts(kInformation);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines.back().rfind("Repeat Alarm: {", 0), 0U);
}

TEST_F(CmdAlarm, OfTheSamePairWithAnotherCommandLineIsNotSentAgain) {
    for (const char* cmdline : {"wget a", "wget b"}) {
        m_task->SendAlarm(Process(101, "wget", cmdline, 100, "qemu-kvm"), "qemu-kvm", "shell");
    }
    EXPECT_EQ(Sent(), 1U);
    const auto lines = m_log.Texts(kInformation);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines.back().rfind("Repeat Alarm: {", 0), 0U);
}

TEST_F(CmdAlarm, ARepeatIsLoggedWithItsText) {
    FakeClock clock;
    Send(101);
    Send(101);
    const std::string prefix = "Repeat Alarm: ";
    const std::string line = m_log.Texts(kInformation).back();
    ASSERT_EQ(line.rfind(prefix, 0), 0U);
    Json::Value repeated;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(line.c_str() + prefix.size(),
                                           line.size() - prefix.size(), repeated),
              0);
    Json::Value first = m_agent.Reporter().Alarms().front();
    first.removeMember("event_id");  // differs every time
    repeated.removeMember("event_id");
    EXPECT_EQ(repeated, first);
}

TEST_F(CmdAlarm, OfAnotherPairIsSent) {
    Send(101);
    Send(102);
    Send(101, "curl");
    Send(101, "wget", 200);
    Send(101, "wget", 100, "sh");
    EXPECT_EQ(Sent(), 5U);
}

TEST_F(CmdAlarm, ARepeatDoesNotProlongItsEntry) {
    FakeClock clock;
    Send(101);
    const auto before = m_task->m_cmdWarnInfo.front().warnTime;
    clock.Advance(10);
    Send(101);
    EXPECT_EQ(m_task->m_cmdWarnInfo.front().warnTime, before);
}

TEST_F(CmdAlarm, IsCachedWithAllItsFields) {
    FakeClock clock;
    m_task->UpdateAlarmCache("p", 1, "c", 2, "line");
    ASSERT_EQ(m_task->m_cmdWarnInfo.size(), 1U);
    const auto& sent = m_task->m_cmdWarnInfo.front();
    EXPECT_EQ(sent.warnTime, clock.Now());
    EXPECT_EQ(sent.ppid, 1);
    EXPECT_EQ(sent.pid, 2);
    EXPECT_EQ(sent.parentName, "p");
    EXPECT_EQ(sent.procName, "c");
    EXPECT_EQ(sent.cmdline, "line");
}

TEST_F(CmdAlarm, NamesTheMonitoredProgramAndItsMachineAlsoWhenTheParentIsAnother) {
    m_task->SendAlarm(Process(102, "wget", "wget x", 101, "sh"), "qemu-kvm", "shell");
    ASSERT_EQ(Sent(), 1U);
    const Json::Value alarm = m_agent.Reporter().Alarms().front();
    EXPECT_EQ(alarm["resource_info"]["vm_name"], "vm-01");
    EXPECT_EQ(alarm["forensic_info"]["monitor_process"], "qemu-kvm");
    EXPECT_EQ(alarm["process_info"][0]["parent_process_name"], "sh");
    EXPECT_EQ(alarm["process_info"][0]["parent_process_pid"], 101);
}

TEST_F(CmdAlarm, CarriesUnknowWhenTheProgramsCommandLineIsNotKnown) {
    m_task->m_procCmdCache.clear();
    Send(101);
    EXPECT_EQ(m_agent.Reporter().Alarms().front()["resource_info"]["vm_name"], "Unknow");
}

TEST_F(CmdAlarm, OfAProcessWithoutNameIsNotSent) {
    Send(101, "");
    EXPECT_EQ(Sent(), 0U);
    EXPECT_EQ(m_log.Texts(kDebug),
              std::vector<std::string>{
                  "Send Alarm: No alarm is sent because process(pid=101) name is empty."});
    EXPECT_TRUE(m_task->m_cmdWarnInfo.empty());
}

TEST_F(CmdAlarm, OfANullRecordIsNotSent) {
    m_task->SendAlarm(nullptr, "qemu-kvm", "shell");
    EXPECT_EQ(Sent(), 0U);
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(CmdAlarm, WithoutCommandLineReadsItFromTheSystem) {
    const ProcInfoPtr info = Process(::getpid(), "self", "", 100, "qemu-kvm");
    m_task->SendAlarm(info, "qemu-kvm", "shell");
    EXPECT_FALSE(info->m_cmdline.empty());
    EXPECT_EQ(m_agent.Reporter().Alarms().front()["process_info"][0]["process_cmdline"],
              info->m_cmdline);
}

TEST_F(CmdAlarm, WithoutCommandLineTakesAtMost4096BytesOfIt) {
    SDK::ProcessUtils::SetLookup([](int pid, SDK::ProcessUtils::procRecord& record) {
        record.m_cmdline = std::string(5000, 'x');
        return pid == 101;
    });
    const ProcInfoPtr info = Process(101, "wget", "", 100, "qemu-kvm");
    m_task->SendAlarm(info, "qemu-kvm", "shell");
    SDK::ProcessUtils::SetLookup({});
    EXPECT_EQ(info->m_cmdline, std::string(4096, 'x'));
}

TEST_F(CmdAlarm, OfAProcessThatIsGoneHasAnEmptyCommandLine) {
    m_task->SendAlarm(Process(-1, "wget", "", 100, "qemu-kvm"), "qemu-kvm", "shell");
    EXPECT_EQ(m_agent.Reporter().Alarms().front()["process_info"][0]["process_cmdline"], "");
}

TEST_F(CmdAlarm, StaysValidJsonWhateverBytesTheProcessChose) {
    m_task->SendAlarm(Process(101, "na\nme", "bad\xff\xfe \x1b[31m \"quoted\"", 100, "qemu-kvm"),
                      "qemu-kvm", "shell");
    const std::string text = m_agent.Reporter().Texts().front();
    EXPECT_EQ(text.find_first_of("\n\x1b\xff"), std::string::npos);
    EXPECT_EQ(m_agent.Reporter().Alarms().front()["process_info"][0]["process_name"], "na\nme");
}

TEST_F(CmdAlarm, TheThousandthFitsIntoTheCache) {
    for (int pid = 1; pid <= 1000; ++pid) {
        Send(pid);
    }
    EXPECT_EQ(m_task->m_cmdWarnInfo.size(), 1000U);
    Send(1);
    EXPECT_EQ(Sent(), 1000U);
}

TEST_F(CmdAlarm, ANewOnePushesTheOldestOfAThousandOut) {
    for (int pid = 1; pid <= 1001; ++pid) {
        Send(pid);
    }
    EXPECT_EQ(m_task->m_cmdWarnInfo.size(), 1000U);
    EXPECT_EQ(m_task->m_cmdWarnInfo.front().pid, 2);
    Send(1);
    EXPECT_EQ(Sent(), 1002U);
}

TEST_F(CmdAlarm, StaysInTheCacheFor299Seconds) {
    FakeClock clock;
    Send(101);
    clock.Advance(299);
    m_task->CleanWarnedInfo();
    EXPECT_EQ(m_task->m_cmdWarnInfo.size(), 1U);
    EXPECT_EQ(m_log.Count(kDebug, "Clean expired alarms from cache"), 1U);
}

TEST_F(CmdAlarm, LeavesTheCacheAfter300Seconds) {
    FakeClock clock;
    Send(101);
    clock.Advance(1);
    Send(102);
    clock.Advance(299);
    m_task->CleanWarnedInfo();
    ASSERT_EQ(m_task->m_cmdWarnInfo.size(), 1U);
    EXPECT_EQ(m_task->m_cmdWarnInfo.front().pid, 102);
    EXPECT_EQ(m_log.Count(kDebug, "Clean cmd warned information in alarm cache"), 1U);
    Send(101);
    EXPECT_EQ(Sent(), 3U);
}

TEST_F(CmdAlarm, LeavesTheCacheByItsAgeWhereverItStands) {
    FakeClock clock;
    clock.Advance(200);
    Send(1);
    clock.Advance(-200);
    Send(2);
    Send(3);
    clock.Advance(300);
    m_task->CleanWarnedInfo();
    ASSERT_EQ(m_task->m_cmdWarnInfo.size(), 1U);
    EXPECT_EQ(m_task->m_cmdWarnInfo.front().pid, 1);
    EXPECT_EQ(m_log.Count(kDebug, "Clean cmd warned information in alarm cache"), 2U);
}

TEST_F(CmdAlarm, FromTheFutureStaysInTheCache) {
    FakeClock clock;
    Send(101);
    clock.Advance(-1000);
    m_task->CleanWarnedInfo();
    EXPECT_EQ(m_task->m_cmdWarnInfo.size(), 1U);
}

TEST_F(CmdAlarm, WithoutAReporterIsCachedAllTheSame) {
    m_agent.Engine().UnRegisterTask("data_comm_report_task");
    Send(101);
    EXPECT_EQ(m_task->m_cmdWarnInfo.size(), 1U);
}

}  // namespace
