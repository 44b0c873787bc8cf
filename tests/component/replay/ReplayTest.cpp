#include "RecordingText.h"
#include "sdk/JsonUtils.h"
#include "sdk/UniqueDescriptor.h"
#include "support/AgentProcess.h"
#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <sstream>
#include <system_error>

namespace {

using Agent::RecordedEvent;
using Kind = RecordedEvent::Kind;
using TestSupport::AgentProcess;
using TestSupport::ChildProcess;
using TestSupport::WaitUntil;
using Info = Engine::ProcsMessage::procInfo;
using Strings = std::vector<std::string>;

constexpr std::int64_t kStartS = 1763711564;
constexpr std::int64_t kUsPerS = 1000000;
constexpr int kOpen = 0x20;

constexpr const char* kQemu = "qemu-system-x86_64";
constexpr int kQemuPid = 100;

// A pipe that holds more has no page left, or soon has none (pipe(7)).
constexpr int kPipeBytes = 50000;

Info Process(int pid, int ppid, const std::string& name, const std::string& cmdline,
             const std::string& parent) {
    Info info;
    info.m_pid = pid;
    info.m_ppid = ppid;
    info.m_name = name;
    info.m_cmdline = cmdline;
    info.m_parentName = parent;
    info.m_exePath = "/usr/bin/" + name;
    info.m_startTime = static_cast<std::uint64_t>(pid);
    return info;
}

Info Qemu() { return Process(kQemuPid, 1, kQemu, "qemu -name guest=vm-01", "init"); }

/// Replays recordings that the test writes by hand.
class Replay : public testing::Test {
protected:
    Replay() {
        m_header.m_host = "kvm";
        m_header.m_shells = "/bin/sh\n";
        m_header.m_hasShells = true;
        Policy(AgentProcess::POLICY_FILE, AgentProcess::Policy(false, {"/usr/bin/id"}));
        Add(0, Kind::SNAPSHOT, Process(1, 0, "init", "/sbin/init", "")).m_left = 1;
        Add(0, Kind::SNAPSHOT, Qemu());
    }

    void Policy(const char* file, const std::string& text) { m_policies.Write(file, text); }

    RecordedEvent& Add(double seconds, Kind kind, const Info& process = Info()) {
        RecordedEvent& event = m_events.emplace_back();
        event.m_kind = kind;
        event.m_at = kStartS * kUsPerS + static_cast<std::int64_t>(seconds * kUsPerS);
        event.m_process = process;
        return event;
    }
    void AddFile(double seconds, int pid, const std::string& path, bool regular = true) {
        RecordedEvent& event = Add(seconds, Kind::FILE);
        event.m_process.m_pid = pid;
        event.m_mask = kOpen;
        event.m_path = path;
        event.m_regular = regular;
    }
    void AddWatch(double seconds, const std::string& path, const std::string& real) {
        RecordedEvent& event = Add(seconds, Kind::WATCH);
        event.m_path = path;
        event.m_realPath = real;
    }
    RecordedEvent& AddPort(double seconds, long inode, int port) {
        RecordedEvent& event = Add(seconds, Kind::SOCKETS);
        auto socket = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
        socket->m_port = port;
        socket->m_protocol = 6;
        socket->m_processes[kQemuPid] = std::make_shared<Info>(Qemu());
        event.m_opened[inode] = socket;
        return event;
    }
    /// A process of the machine runs a command: an alarm.
    void AddCommand(double seconds, int pid) {
        Add(seconds, Kind::EXEC, Process(pid, kQemuPid, "id", "/usr/bin/id", kQemu));
    }

    /// Replays what was added, and an end.
    void Run(double endS, const Strings& arguments = {}) {
        Add(endS, Kind::END).m_reason = "stopped";
        RunText(Text(), arguments);
    }
    std::string Text() const {
        std::string text = Agent::RecordingText::Write(m_header) + '\n';
        for (const RecordedEvent& event : m_events) {
            text += Agent::RecordingText::Write(event) + '\n';
        }
        return text;
    }
    Strings Command(const std::string& text, const Strings& arguments) const {
        const std::string recording = m_folder.Write("recording", text);
        Strings all = {BUILD_FOLDER "/bin/vmescape-agent",
                       "replay",
                       recording,
                       "--config",
                       m_configuration,
                       "--policies",
                       m_policyFolder};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }
    void RunText(const std::string& text, const Strings& arguments = {}) {
        m_result = ChildProcess::Run(Command(text, arguments), std::chrono::seconds(60));
    }

    /// The alarms, in order.
    std::vector<Json::Value> Alarms() const {
        std::vector<Json::Value> alarms;
        std::istringstream lines(m_result.m_output);
        for (std::string line; std::getline(lines, line);) {
            Json::Value alarm;
            EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.c_str(), line.length(), alarm), 0) << line;
            alarms.push_back(alarm);
        }
        return alarms;
    }
    /// Each as "class at second".
    Strings Times() const {
        Strings times;
        for (const Json::Value& alarm : Alarms()) {
            times.push_back(alarm["event_classid"].asString() + " at " +
                            std::to_string(alarm["occur_time"].asInt64() - kStartS));
        }
        return times;
    }

    static int BytesIn(int pipe) {
        int bytes = 0;
        ::ioctl(pipe, FIONREAD, &bytes);
        return bytes;
    }

    /// How far a process has read the recording; 0 when it has not opened it.
    long PlaceIn(int pid) const {
        const std::string folder = "/proc/" + std::to_string(pid);
        std::error_code gone;
        for (const auto& file : std::filesystem::directory_iterator(folder + "/fd", gone)) {
            if (std::filesystem::read_symlink(file.path(), gone) == m_folder / "recording") {
                const std::string number = file.path().filename();
                const std::string info = TestSupport::ReadText(folder + "/fdinfo/" + number);
                return info.empty() ? 0 : std::stol(info.substr(info.find(':') + 1));
            }
        }
        return 0;
    }

    bool Says(const std::string& text) const {
        return m_result.m_errors.find(text) != std::string::npos;
    }

    TestSupport::TemporaryFolder m_folder;
    TestSupport::TemporaryFolder m_policies;
    std::string m_configuration = m_folder.Write("agent.json", "{}");
    std::string m_policyFolder = m_policies.Path();
    Agent::RecordingHeader m_header;
    std::vector<RecordedEvent> m_events;
    ChildProcess::Result m_result;
};

TEST_F(Replay, RaisesTheAlarmsOfAllClassesAtTheRecordedTime) {
    Policy(AgentProcess::FILE_POLICY_FILE, AgentProcess::FilePolicy(true, {"/secrets"}, {}));
    Policy(AgentProcess::PORT_POLICY_FILE, AgentProcess::PortPolicy({}));
    AddWatch(0, "/secrets", "/secrets");
    Add(5.9, Kind::FORK, Process(200, kQemuPid, kQemu, "qemu -name guest=vm-01", kQemu));
    Add(6, Kind::EXEC, Process(200, kQemuPid, "id", "/usr/bin/id -u", kQemu));
    AddFile(7, kQemuPid, "/secrets/not/on/this/host");
    AddPort(8, 5000, 4444);
    Run(30);
    EXPECT_EQ(m_result.m_status, 0);
    ASSERT_EQ(Times(),
              (Strings{"vmescape_0001 at 6", "vmescape_0002 at 7", "vmescape_0003 at 10"}));
    const std::vector<Json::Value> alarms = Alarms();
    for (const Json::Value& alarm : alarms) {
        EXPECT_EQ(alarm["resource_info"]["vm_name"], "vm-01");
    }
    EXPECT_EQ(alarms[0]["process_info"][0]["process_pid"], 200);
    EXPECT_EQ(alarms[0]["process_info"][0]["process_cmdline"], "/usr/bin/id -u");
    EXPECT_EQ(alarms[1]["file_info"][0]["file_path"], "/secrets/not/on/this/host");
    EXPECT_EQ(alarms[1]["file_info"][0]["file_action"], "open");
    EXPECT_EQ(alarms[2]["forensic_info"]["abnormal_port"], "4444");
    EXPECT_TRUE(Says("replayed 30 seconds of kvm, from 2025-11-21T07:52:44Z"));
    EXPECT_TRUE(Says("events: exec 1, file 1, fork 1, snapshot 2, sockets 1, watch 1\n"));
    EXPECT_TRUE(Says("alarms: vmescape_0001 1, vmescape_0002 1, vmescape_0003 1\n"));
    EXPECT_FALSE(Says("warning")) << m_result.m_errors;
}

TEST_F(Replay, JudgesByThePolicyThatItIsGiven) {
    AddCommand(5, 200);
    Add(6, Kind::EXEC, Process(201, kQemuPid, "true", "/usr/bin/true", kQemu));
    Run(10);
    EXPECT_EQ(Times(), Strings{"vmescape_0001 at 5"});
    m_events.pop_back();
    Policy(AgentProcess::POLICY_FILE, AgentProcess::Policy(true, {"/usr/bin/id", "/usr/bin/true"}));
    Run(10);
    EXPECT_EQ(Times(), Strings());
    EXPECT_EQ(m_result.m_status, 0);
    m_events.pop_back();
    Policy(AgentProcess::POLICY_FILE, AgentProcess::Policy(true, {}));
    Run(10);
    EXPECT_EQ(Times(), (Strings{"vmescape_0001 at 5", "vmescape_0001 at 6"}));
}

TEST_F(Replay, RepeatsAnAlarmWhenItWouldHaveBeenRepeatedLive) {
    // Every 300 seconds from the start on, the detection forgets alarms of 300 seconds and more.
    for (const double second : {10.0, 20.0, 301.0, 599.0, 601.0, 899.0, 1199.0, 1201.0, 3599.0}) {
        AddCommand(second, 200);
    }
    Run(3600);
    EXPECT_EQ(Times(), (Strings{"vmescape_0001 at 10", "vmescape_0001 at 601",
                                "vmescape_0001 at 1201", "vmescape_0001 at 3599"}));
}

TEST_F(Replay, RaisesOneAlarmForAPortThatIsHeldForMinutes) {
    Policy(AgentProcess::PORT_POLICY_FILE, AgentProcess::PortPolicy({}));
    AddPort(3, 5000, 4444);
    Add(250, Kind::SOCKETS).m_closed = {5000};
    Run(290);
    EXPECT_EQ(Times(), Strings{"vmescape_0003 at 10"});
}

TEST_F(Replay, SeesEverySocketThatWasRecordedHoweverShortBeforeTheEnd) {
    Policy(AgentProcess::PORT_POLICY_FILE, AgentProcess::PortPolicy({}));
    AddPort(10.001, 5000, 4444);
    Add(20.002, Kind::SOCKETS).m_closed = {5000};
    AddPort(21, 5001, 5555);
    Run(21);
    EXPECT_EQ(Times(), (Strings{"vmescape_0003 at 20", "vmescape_0003 at 30"}));
}

TEST_F(Replay, OfAnHourTakesSeconds) {
    Policy(AgentProcess::FILE_POLICY_FILE, AgentProcess::FilePolicy(true, {"/secrets"}, {}));
    Policy(AgentProcess::PORT_POLICY_FILE, AgentProcess::PortPolicy({}));
    for (int second = 1; second < 3600; ++second) {
        Add(second, Kind::FORK, Process(1000 + second, 1, "init", "/sbin/init", "init"));
        Add(second, Kind::EXEC, Process(1000 + second, 1, "make", "make all", "init"));
        Add(second, Kind::EXIT).m_process.m_pid = 1000 + second;
    }
    AddCommand(3599, 200);
    Run(3600);  // which fails after a minute
    EXPECT_EQ(Times(), Strings{"vmescape_0001 at 3599"});
    EXPECT_EQ(m_result.m_status, 0);
}

TEST_F(Replay, IsTheSameEachTime) {
    Policy(AgentProcess::FILE_POLICY_FILE, AgentProcess::FilePolicy(true, {"/secrets"}, {}));
    Policy(AgentProcess::PORT_POLICY_FILE, AgentProcess::PortPolicy({}));
    for (int i = 0; i < 300; ++i) {
        AddCommand(i * 0.1, 200 + i);
        AddFile(i * 0.1, kQemuPid, "/secrets/" + std::to_string(i));
    }
    AddPort(40, 5000, 4444);
    Run(60);
    const auto comparable = [this] {
        std::vector<Json::Value> alarms = Alarms();
        for (Json::Value& alarm : alarms) {
            alarm.removeMember("event_id");
        }
        return alarms;
    };
    const std::vector<Json::Value> first = comparable();
    EXPECT_EQ(first.size(), 601U);
    for (int i = 0; i < 5; ++i) {
        m_events.pop_back();
        Run(60);
        EXPECT_EQ(comparable(), first);
    }
}

TEST_F(Replay, WaitsForAnOutputThatNobodyReads) {
    constexpr int kAlarms = 3000;
    for (int i = 0; i < kAlarms; ++i) {
        AddCommand(1, 1000 + i);
    }
    Add(2, Kind::END).m_reason = "stopped";
    const std::string pipe = m_folder / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const SDK::UniqueDescriptor reader(::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const std::string text = Text();
    ChildProcess replay(Command(text, {"--output", "json:file:" + pipe}));
    EXPECT_TRUE(WaitUntil([&] { return BytesIn(reader.Get()) > kPipeBytes; }));
    // It stands still when it is at the same place again and again.
    long place = 0;
    int looks = 0;
    EXPECT_TRUE(WaitUntil([&] {
        looks = PlaceIn(replay.Pid()) == place ? looks + 1 : 0;
        place = PlaceIn(replay.Pid());
        return looks == 100;
    }));
    EXPECT_GT(place, 0);
    EXPECT_LT(place, static_cast<long>(text.size()));
    std::ptrdiff_t lines = 0;
    EXPECT_TRUE(WaitUntil(
        [&] {
            std::array<char, 4096> read{};
            ssize_t got = 0;
            while ((got = ::read(reader.Get(), read.data(), read.size())) > 0) {
                lines += std::count(read.data(), read.data() + got, '\n');
            }
            return got == 0;  // nobody has it open for writing any more
        },
        std::chrono::seconds(60)));
    EXPECT_EQ(lines, kAlarms);
    EXPECT_EQ(replay.Wait().value_or(-1), 0);
}

TEST(ReplayWithoutItsProgram, SaysWhichOneIsMissing) {
    const TestSupport::TemporaryFolder folder;
    const std::string lone = folder / "vmescape-agent";
    std::filesystem::copy_file(BUILD_FOLDER "/bin/vmescape-agent", lone);
    const ChildProcess::Result result = ChildProcess::Run(
        {"env", "LD_LIBRARY_PATH=" BUILD_FOLDER "/lib", lone, "replay", "recording"});
    EXPECT_EQ(result.m_status, 1);
    EXPECT_EQ(result.m_errors, "vmescape-agent: " + folder / "vmescape-replay" +
                                   " cannot be run: No such file or directory\n");
}

TEST_F(Replay, JudgesWhatLivedWhenTheRecordingBegan) {
    m_events[0].m_left = 2;
    m_events[1].m_left = 1;
    Add(0, Kind::SNAPSHOT, Process(200, kQemuPid, "id", "/usr/bin/id", kQemu));
    Run(5);
    EXPECT_EQ(Times(), Strings{"vmescape_0001 at 0"});
}

TEST_F(Replay, KnowsAProcessForAMinuteAfterItsEnd) {
    Policy(AgentProcess::FILE_POLICY_FILE, AgentProcess::FilePolicy(true, {"/secrets"}, {}));
    AddWatch(0, "/secrets", "/secrets");
    for (const int pid : {200, 201}) {
        Add(1, Kind::FORK, Process(pid, kQemuPid, "helper", "helper", kQemu));
    }
    for (const int pid : {200, 201}) {
        Add(2, Kind::EXIT).m_process.m_pid = pid;
    }
    AddFile(61, 200, "/secrets/a");
    AddFile(63, 201, "/secrets/a");
    Run(70);
    EXPECT_EQ(Times(), Strings{"vmescape_0002 at 61"});
}

TEST_F(Replay, AsksTheRecordingAndNotThisHostWhatAFileIs) {
    const std::string here = m_folder.Write("here", "");
    Policy(AgentProcess::FILE_POLICY_FILE, AgentProcess::FilePolicy(true, {m_folder.Path()}, {}));
    AddWatch(0, m_folder.Path(), m_folder.Path());
    AddFile(1, kQemuPid, here, false);
    AddFile(2, kQemuPid, m_folder / "was there");
    Run(5);
    EXPECT_EQ(Times(), Strings{"vmescape_0002 at 2"});
}

TEST_F(Replay, TakesTheShellsOfTheRecordedHost) {
    m_header.m_shells = "/opt/odd/shell\n";
    Policy(AgentProcess::POLICY_FILE, AgentProcess::Policy(false, {"nothing"}));
    Add(1, Kind::EXEC, Process(200, kQemuPid, "shell", "/opt/odd/shell -i", kQemu));
    Add(2, Kind::EXEC, Process(201, kQemuPid, "bash", "/bin/bash", kQemu));
    Run(5);
    EXPECT_EQ(Times(), Strings{"vmescape_0001 at 1"});
}

TEST_F(Replay, LooksForNoProcessOnThisHost) {
    // The child of one that is not recorded, with the pid of one that lives here.
    Policy(AgentProcess::POLICY_FILE, AgentProcess::Policy(true, {}));
    Policy(AgentProcess::FILE_POLICY_FILE,
           R"({"module_name":"vmescape_module","enabled":true,"content":{"action":true,)"
           R"("senstive_dirs":["/secrets"],"monitor_list":[{"virtmonitor":")" +
               TestSupport::ReadText("/proc/self/comm").substr(0, 15) + R"(","filelist":[]}]}})");
    AddWatch(0, "/secrets", "/secrets");
    AddFile(1, ::getpid(), "/secrets/a");
    Run(5);
    EXPECT_EQ(Times(), Strings());
}

TEST_F(Replay, SaysWhichDirectoriesWereNotRecordedAndThatThereAreNoSockets) {
    Policy(AgentProcess::FILE_POLICY_FILE, AgentProcess::FilePolicy(true, {"/a", "/b/c"}, {}));
    Policy(AgentProcess::PORT_POLICY_FILE, AgentProcess::PortPolicy({}));
    AddWatch(0, "/b", "/b");
    Run(5);
    EXPECT_EQ(m_result.m_status, 0);
    EXPECT_TRUE(
        Says("warning: /a was not watched when this was recorded, so accesses there "
             "cannot be judged\n"));
    EXPECT_TRUE(Says("warning: no sockets were recorded, so ports cannot be judged\n"));
    EXPECT_FALSE(Says("/b/c"));
}

TEST_F(Replay, FollowsALinkWhereItLedOnTheRecordedHost) {
    Policy(AgentProcess::FILE_POLICY_FILE, AgentProcess::FilePolicy(true, {"/link"}, {}));
    AddWatch(0, "/link", "/real");
    AddFile(1, kQemuPid, "/real/a");
    Run(5);
    EXPECT_EQ(Times(), Strings{"vmescape_0002 at 1"});
}

TEST_F(Replay, MakesUpForAGapByTheSnapshotBehindIt) {
    RecordedEvent& gap = Add(1, Kind::GAP);
    gap.m_lost = 12;
    Add(2, Kind::SNAPSHOT, Process(1, 0, "init", "/sbin/init", "")).m_left = 2;
    Add(2, Kind::SNAPSHOT, Qemu()).m_left = 1;
    Add(2, Kind::SNAPSHOT, Process(200, kQemuPid, "id", "/usr/bin/id", kQemu));
    Run(5);
    EXPECT_EQ(Times(), Strings{"vmescape_0001 at 2"});
    EXPECT_TRUE(Says("gaps:   1, 12 events are missing\n"));
}

TEST_F(Replay, ReplaysARecordingThatWasCutAsFarAsItGoes) {
    AddCommand(1, 200);
    AddCommand(2, 201);
    const std::string text = Text();
    RunText(text);
    EXPECT_EQ(m_result.m_status, 0);
    EXPECT_EQ(Alarms().size(), 2U);
    EXPECT_TRUE(
        Says("recording:5: there is no end, the agent was ended or could not write any more"));
    RunText(text.substr(0, text.size() - 20));
    EXPECT_EQ(m_result.m_status, 0);
    EXPECT_EQ(Alarms().size(), 1U);
    EXPECT_TRUE(Says("warning: " + m_folder / "recording" + ":5: the line is torn"));
}

TEST_F(Replay, WarnsOfARecordingThatCouldNotBeWrittenToItsEnd) {
    AddCommand(1, 200);
    Add(2, Kind::END).m_reason = "failed";
    RunText(Text());
    EXPECT_EQ(m_result.m_status, 0);
    EXPECT_TRUE(Says("warning: the recording ended early, the agent could not go on with it\n"));
}

TEST_F(Replay, EndsWithSixAndTheLineWhenARecordingIsBad) {
    AddCommand(1, 200);
    const std::string text = Text();
    RunText(text + "{\"at\":1863711564000000,\"event\":\"exit\"}\n");
    EXPECT_EQ(m_result.m_status, 6);
    EXPECT_TRUE(Says("vmescape-agent: " + m_folder / "recording" +
                     ":5: /pid: expected a whole number from 0 to 2147483647, found nothing\n"));
    EXPECT_EQ(Alarms().size(), 1U) << "what came before was judged";
    RunText("no recording\n");
    EXPECT_EQ(m_result.m_status, 6);
    EXPECT_TRUE(Says("recording:1: this is no recording: expected JSON"));
    RunText(text.substr(0, text.find('\n') + 1));
    EXPECT_EQ(m_result.m_status, 6) << "without a process there is nothing to replay";
}

TEST_F(Replay, EndsWithSixWhenAPolicyIsBadOrThereIsNone) {
    Policy(AgentProcess::POLICY_FILE, "{}");
    Run(5);
    EXPECT_EQ(m_result.m_status, 6);
    EXPECT_TRUE(Says("/module_name: expected \"vmescape_module\", found nothing"));
    m_events.pop_back();
    const TestSupport::TemporaryFolder empty;
    m_policyFolder = empty.Path();
    Run(5);
    EXPECT_EQ(m_result.m_status, 6);
    EXPECT_TRUE(Says("there is no policy in " + empty.Path())) << m_result.m_errors;
}

TEST_F(Replay, EndsWithTwoWhenTheCommandLineIsNotUnderstood) {
    for (const Strings& arguments :
         {Strings{}, Strings{"a", "b"}, Strings{"a", "--record", "b"}, Strings{"a", "-o", "x=y"}}) {
        Strings all = {BUILD_FOLDER "/bin/vmescape-agent", "replay"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        EXPECT_EQ(ChildProcess::Run(all).m_status, 2);
    }
    EXPECT_EQ(ChildProcess::Run({BUILD_FOLDER "/bin/vmescape-replay", "run"}).m_status, 2);
}

TEST_F(Replay, WritesTheSummaryAsJson) {
    AddCommand(1, 200);
    Run(10, {"--json"});
    Json::Value summary;
    std::string error;
    const std::string& text = m_result.m_errors;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), summary, error), 0) << text;
    EXPECT_EQ(summary["alarms"]["vmescape_0001"], 1);
    EXPECT_EQ(summary["seconds"], 10);
    EXPECT_TRUE(summary["whole"].asBool());
}

TEST_F(Replay, WritesAlarmsWhereItIsToldAndNotWhereTheAgentDoes) {
    AddCommand(1, 200);
    m_configuration = m_folder.Write(
        "c", R"({"report":{"output":"file:)" + m_folder / "live" + R"(","format":"text"}})");
    Run(5);
    EXPECT_EQ(Alarms().size(), 1U);
    m_events.pop_back();
    Run(5, {"--output", "text:file:" + m_folder / "replayed"});
    EXPECT_EQ(m_result.m_output, "");
    EXPECT_NE(TestSupport::ReadText(m_folder / "replayed").find("vm-01"), std::string::npos);
    EXPECT_EQ(TestSupport::ReadText(m_folder / "live"), "");
}

}  // namespace
