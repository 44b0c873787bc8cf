#include "OpenPortTask.h"
#include "support/CapturedLog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <string>

namespace {

using Framework::Message;
using TestSupport::CapturedLog;
using TestSupport::Process;
using TestSupport::ProcInfoPtr;
using Strings = std::vector<std::string>;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

class PortChecks : public testing::Test {
protected:
    PortChecks() {
        m_task->Use({R"({"virtmonitor":"qemu-kvm","portlist":["22"]})",
                     R"({"virtmonitor":"qemu-arm","portlist":[]})"});
        m_log.Clear();
    }

    static ProcInfoPtr Qemu(int pid = 100, const std::string& more = "") {
        return Process(pid, "qemu-kvm", "qemu-kvm -name vm-01" + more);
    }
    static ProcInfoPtr Other(int pid) { return Process(pid, "sshd", "sshd"); }

    void Check(std::map<long, NetInfoPtr> table) { m_task->CheckAbnormalNetPort(table); }
    void Check(std::vector<std::shared_ptr<Message>> messages) {
        m_task->CheckAbnormalNetPort(messages);
    }
    std::size_t Alarms() { return m_agent.Reporter().Count(); }
    std::string PortOfAlarm() {
        return m_agent.Reporter().Alarms().back()["forensic_info"]["abnormal_port"].asString();
    }

    TestSupport::ScriptedAgent m_agent;
    CapturedLog m_log;
    OpenPortTaskPtr m_task = new OpenPortTask;
};

TEST_F(PortChecks, OfAnEmptyTableOnlySayItsSize) {
    Check(std::map<long, NetInfoPtr>());
    EXPECT_EQ(m_log.Texts(kDebug), Strings{"NetProcSet size=0"});
    EXPECT_EQ(m_log.Lines().size(), 1U);
}

TEST_F(PortChecks, TellAPortThatIsNotAllowed) {
    Check({{1, SocketAt(4444, {Qemu()})}});
    ASSERT_EQ(Alarms(), 1U);
    EXPECT_EQ(PortOfAlarm(), "4444");
    EXPECT_EQ(m_log.Count(kDebug, "NetProcSet size=1"), 1U);
    EXPECT_EQ(m_log.Count(kDebug, "Porcess(name:qemu-kvm) is  monitor process"), 1U);
}

TEST_F(PortChecks, AllowAPortOfTheList) {
    Check({{1, SocketAt(22, {Qemu()})}});
    EXPECT_EQ(Alarms(), 0U);
}

TEST_F(PortChecks, GoThroughTheTableInTheOrderOfItsKeys) {
    Check({{9, SocketAt(3, {Qemu()})}, {-1, SocketAt(1, {Qemu()})}, {5, SocketAt(2, {Qemu()})}});
    Strings ports;
    for (const Json::Value& alarm : m_agent.Reporter().Alarms()) {
        ports.push_back(alarm["forensic_info"]["abnormal_port"].asString());
    }
    EXPECT_EQ(ports, (Strings{"1", "2", "3"}));
}

TEST_F(PortChecks, SkipASocketWithoutRecordOrHolders) {
    Check({{1, nullptr}, {2, SocketAt(4444, {})}, {3, SocketAt(4444, {Qemu()})}});
    EXPECT_EQ(m_log.Texts(kError),
              (Strings{"netProcInfo is a null pointer", "netProcInfo is a null pointer"}));
    EXPECT_EQ(Alarms(), 1U);
}

TEST_F(PortChecks, SkipAHolderWithoutRecord) {
    Check({{1, SocketAt(4444, {nullptr, Qemu()})}});
    EXPECT_EQ(m_log.Texts(kError), Strings{"procInfo is null in processList"});
    EXPECT_EQ(Alarms(), 1U);
}

TEST_F(PortChecks, PassOverHoldersThatAreNotWatched) {
    Check({{1, SocketAt(4444, {Other(50), Qemu(100)})}});
    EXPECT_EQ(Alarms(), 1U);
}

TEST_F(PortChecks, SayThatNoHolderIsWatched) {
    Check({{1, SocketAt(4444, {Other(50), Other(60)})}});
    EXPECT_EQ(Alarms(), 0U);
    EXPECT_EQ(m_log.Count(kDebug, "No process is found in the monitoring list."), 1U);
}

TEST_F(PortChecks, LetTheFirstWatchedHolderDecide) {
    const ProcInfoPtr arm = Process(50, "qemu-arm", "qemu-arm");
    Check({{1, SocketAt(22, {Qemu(40), arm})}});
    EXPECT_EQ(Alarms(), 0U) << "allowed to the lower pid";
    Check({{1, SocketAt(22, {arm, Qemu(60)})}});
    ASSERT_EQ(Alarms(), 1U);
    EXPECT_EQ(m_agent.Reporter().Alarms()[0]["process_info"][0]["process_pid"].asInt(), 50);
}

TEST_F(PortChecks, LetAnExcusedDisplayOfTheFirstWatchedHolderEndTheMatter) {
    Check({{1, SocketAt(5901, {Qemu(40, " -vnc :1"), Process(50, "qemu-arm", "qemu-arm")})}});
    EXPECT_EQ(Alarms(), 0U);
    EXPECT_EQ(m_log.Count(kDebug, "Process(name:qemu-kvm) open vnc port(5901)"), 1U);
}

TEST_F(PortChecks, ExcuseADisplayBeforeTheyLookAtTheRule) {
    m_task->Use({R"({"virtmonitor":"qemu-kvm","portlist":["5901"]})"});
    Check({{1, SocketAt(5901, {Qemu(100, " -vnc :1")})}});
    EXPECT_EQ(Alarms(), 0U);
    EXPECT_EQ(m_log.Count(kDebug, "Process(name:qemu-kvm) open vnc port(5901)"), 1U);
}

TEST_F(PortChecks, ExcuseADisplayWhereNoPortIsAllowed) {
    const ProcInfoPtr arm = Process(50, "qemu-arm", "qemu-arm -vnc :1");
    Check({{1, SocketAt(5901, {arm})}});
    EXPECT_EQ(Alarms(), 0U);
    Check({{1, SocketAt(5902, {arm})}});
    EXPECT_EQ(Alarms(), 1U);
}

TEST_F(PortChecks, AlarmThePidOfTheRecordAndNotItsPlaceAmongTheHolders) {
    const NetInfoPtr info = SocketAt(4444, {});
    info->m_processes[7] = Qemu(100);
    Check({{1, info}});
    ASSERT_EQ(Alarms(), 1U);
    EXPECT_EQ(m_agent.Reporter().Alarms()[0]["process_info"][0]["process_pid"].asInt(), 100);
}

TEST_F(PortChecks, OfOneSocketSayWhetherItCameToAnAlarm) {
    const auto check = [this](int port, std::initializer_list<ProcInfoPtr> holders) {
        return m_task->CheckProcessAbnormalNetPort(SocketAt(port, holders)->m_processes, port, 6);
    };
    EXPECT_TRUE(check(4444, {Qemu()}));
    EXPECT_TRUE(check(4444, {Qemu()})) << "a repeat too";
    EXPECT_FALSE(check(22, {Qemu()})) << "allowed";
    EXPECT_FALSE(check(5901, {Qemu(100, " -vnc :1")})) << "its display";
    m_log.Clear();
    EXPECT_FALSE(check(4444, {Other(50), Other(60)}));
    EXPECT_FALSE(check(4444, {}));
    EXPECT_EQ(m_log.Texts(kDebug), (Strings{"No process is found in the monitoring list.",
                                            "No process is found in the monitoring list."}));
    EXPECT_EQ(Alarms(), 1U);
}

TEST_F(PortChecks, CarryTheirPlaceInTheSourceInTheirLines) {
    Check({{1, nullptr}, {2, SocketAt(5901, {nullptr, Other(50), Qemu(100, " -vnc :1")})}});
    Check({{1, SocketAt(4444, {Other(50)})}});
    Check(std::vector<std::shared_ptr<Message>>{nullptr});
    m_task->AttachFeaturePolicy(nullptr);
    std::string port;
    m_task->IsMonitorProcess("qemu-kvm");
    m_task->MatchMonitorRule("qemu-kvm", 1, 2, port);
    EXPECT_EQ(m_log.Lines().size(), 10U);
    for (const CapturedLog::Line& line : m_log.Lines()) {
        EXPECT_EQ(line.file, "QemuPortDetectTaskChecks.cpp") << line.text;
        EXPECT_GT(line.line, 0);
    }
}

TEST_F(PortChecks, AreCaseSensitiveAboutNames) {
    Check({{1, SocketAt(4444, {Process(100, "QEMU-KVM", "QEMU-KVM")})}});
    EXPECT_EQ(Alarms(), 0U);
}

TEST_F(PortChecks, LeaveTheRecordsOfTheCollectorAlone) {
    const NetInfoPtr info = SocketAt(4444, {Qemu()});
    Check({{1, info}});
    EXPECT_EQ(info->m_processes.size(), 1U);
}

struct Display {
    const char* m_option;
    int m_port;
    bool m_excused;
};

class VncDisplays : public PortChecks, public testing::WithParamInterface<Display> {};

TEST_P(VncDisplays, ExcuseTheirOwnPortOnly) {
    const auto& [option, port, excused] = GetParam();
    EXPECT_EQ(m_task->FilterVncPort("ignored", std::string("qemu-kvm ") + option, port), excused)
        << option << ' ' << port;
}

/// "_vnc__1_5901": a test is called by the same name in every run.
std::string NameOf(const testing::TestParamInfo<Display>& display) {
    std::string name = display.param.m_option + ('_' + std::to_string(display.param.m_port));
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(
    Of, VncDisplays,
    testing::Values(Display{"-vnc :1", 5901, true}, Display{"-vnc :1", 5900, false},
                    Display{"-vnc :1", 5902, false}, Display{"-vnc 0.0.0.0:1", 5901, true},
                    Display{"-vnc 127.0.0.1:0,websocket=5700", 5900, true},
                    Display{"-vnc 127.0.0.1:0,websocket=5700", 5700, false},
                    Display{"-vnc localhost:12 -S", 5912, true}, Display{"-vnc :", 5900, true},
                    Display{"-vnc :x", 5900, true}, Display{"-vnc :7x", 5907, true},
                    Display{"-vnc none", 5900, false}, Display{"-vnc 1", 5901, false},
                    Display{"-vnc unix:/run/vnc", 5900, true}, Display{"-vnc [::1]:6", 5906, false},
                    Display{"-vnc :-1", 5899, true}, Display{"-vnc :+1", 5901, true},
                    Display{"-vnc :1:2", 5901, true}, Display{"-vnc :1:2", 5902, false},
                    Display{"-vnc=:3", 5903, true}, Display{"-vnc ::", 5900, true},
                    Display{"-S", 5900, false}, Display{"-vnc :9223372036854775807", 5899, false},
                    Display{"-vnc :-9223372036854775808", 5900, false}),
    NameOf);

TEST_F(PortChecks, AskNobodyWithoutAPolicy) {
    OpenPortTaskPtr task = new OpenPortTask;
    std::string port;
    EXPECT_FALSE(task->IsMonitorProcess("qemu-kvm"));
    EXPECT_FALSE(task->MatchMonitorRule("qemu-kvm", 1, 2, port));
    EXPECT_EQ(m_log.Texts(kError),
              (Strings{"m_featurePolicy is null pointer in QemuPortDetectTask::IsMonitorProcess",
                       "m_featurePolicy is null pointer in QemuPortDetectTask::MatchMonitorRule"}));
}

TEST_F(PortChecks, AreSilentUnderAPolicyOfAnotherKind) {
    m_task->AttachFeaturePolicy(std::make_shared<Framework::FeaturePolicy>("other"));
    std::string port;
    EXPECT_FALSE(m_task->IsMonitorProcess("qemu-kvm"));
    EXPECT_FALSE(m_task->MatchMonitorRule("qemu-kvm", 1, 2, port));
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(PortChecks, WriteAPortInPlainDecimal) {
    std::string port;
    EXPECT_TRUE(m_task->MatchMonitorRule("qemu-kvm", -5, 6, port));
    EXPECT_EQ(port, "-5");
}

TEST_F(PortChecks, OfMessagesLeaveOutThoseOfSocketsAndNothings) {
    Check({nullptr, std::make_shared<Engine::NetProcsMessage>(SocketAt(4444, {Qemu()}))});
    EXPECT_EQ(m_log.Texts(kError), Strings{"msgData is a null pointer"});
    EXPECT_EQ(Alarms(), 0U);
}

TEST_F(PortChecks, OfMessagesSurviveThoseThatAreNoneOfSockets) {
    Check({std::make_shared<Message>("other")});
    EXPECT_TRUE(m_log.Lines().empty());
}

}  // namespace
