#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/WaitUntil.h"

#include <signal.h>

#include <filesystem>
#include <map>

namespace {

using TestSupport::ChildProcess;

const std::string kAgent = BUILD_FOLDER "/bin/vmescape-agent";

class AgentProgram : public LiveTest {
protected:
    void SetUp() override { Need(Agent::Missing()); }

    static ChildProcess::Result Run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), kAgent);
        return ChildProcess::Run(arguments);
    }

    /// A run that must not get far: no policies, no configuration of the host.
    ChildProcess::Result RunWith(std::vector<std::string> arguments) const {
        std::vector<std::string> all = {"run", "--config", m_folder.Write("c", "{}"), "--policies",
                                        m_folder.Path()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return Run(all);
    }

    TestSupport::TemporaryFolder m_folder;
};

TEST_F(AgentProgram, EndsCleanlyOnTerminationAndInterrupt) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Agent agent(BUILD_FOLDER, DenyList());
        EXPECT_EQ(agent.Stop(signal), 0);
        EXPECT_NE(agent.Log().find("Signal " + std::to_string(signal) + " ends the agent"),
                  std::string::npos);
        EXPECT_NE(agent.Log().find("Task(qemu_cmd_detect_task): "), std::string::npos);
        EXPECT_NE(agent.Log().find("vmescape-agent has stopped"), std::string::npos);
    }
}

TEST_F(AgentProgram, EndsCleanlyWhenItIsStoppedWhileItStarts) {
    const std::string config = m_folder.Write("c", "{}");
    ChildProcess agent({kAgent, "run", "--config", config, "--policies", m_folder.Path(),
                        "--log-level", "information"});
    // From the first line on signals are received, not obeyed.
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return !agent.Errors().empty(); }));
    agent.Signal(SIGTERM);
    EXPECT_EQ(agent.Wait(), 0);
}

TEST_F(AgentProgram, TellsItsVersionAndItsHelp) {
    EXPECT_EQ(Run({"--version"}).m_status, 0);
    EXPECT_EQ(Run({"--version"}).m_output.rfind("vmescape-agent ", 0), 0U);
    EXPECT_EQ(Run({"--help"}).m_status, 0);
    EXPECT_NE(Run({"run", "--help"}).m_output.find("--policies"), std::string::npos);
}

TEST_F(AgentProgram, EndsWithTwoWhenTheCommandLineIsNotUnderstood) {
    EXPECT_EQ(Run({}).m_status, 2);
    EXPECT_EQ(RunWith({"--nonsense"}).m_status, 2);
    const ChildProcess::Result unknown = RunWith({"-o", "report.colour=never"});
    EXPECT_EQ(unknown.m_status, 2);
    EXPECT_NE(unknown.m_errors.find("unknown key \"report.colour\""), std::string::npos);
    EXPECT_EQ(RunWith({"--format", "xml"}).m_status, 2);
    EXPECT_EQ(RunWith({"--output", "stderr"}).m_status, 2);
}

TEST_F(AgentProgram, EndsWithFourAndSaysWhichPrivilegeIsMissing) {
    const ChildProcess::Result result =
        ChildProcess::Run({"setpriv", "--bounding-set=-all", "--inh-caps=-all", kAgent, "run",
                           "--config", m_folder.Write("c", "{}")});
    EXPECT_EQ(result.m_status, 4) << result.m_errors;
    for (const char* name : {"CAP_BPF", "CAP_PERFMON", "CAP_NET_ADMIN", "CAP_SYS_PTRACE"}) {
        EXPECT_NE(result.m_errors.find(name), std::string::npos) << name;
    }
}

TEST_F(AgentProgram, KeepsNoPrivilegeThatItDoesNotNeedInAnyThread) {
    Agent agent(BUILD_FOLDER, DenyList(), {"-o", "process_collect.source=bpf"});
    const std::string threads = "/proc/" + std::to_string(agent.Child().Pid()) + "/task";
    std::size_t looked = 0;
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
        const std::string status = TestSupport::ReadText(thread.path() / "status");
        // CAP_DAC_READ_SEARCH, CAP_SYS_PTRACE, CAP_SYS_ADMIN, CAP_PERFMON, CAP_BPF
        EXPECT_NE(status.find("CapPrm:\t000000c000280004\nCapEff:\t000000c000280004\n"
                              "CapBnd:\t0000000000000000\n"),
                  std::string::npos)
            << status;
        EXPECT_NE(status.find("NoNewPrivs:\t1\n"), std::string::npos) << status;
        ++looked;
    }
    EXPECT_GT(looked, 5U);
}

TEST_F(AgentProgram, RefusesModulesAndConfigurationsThatOthersMayWrite) {
    const std::string config = m_folder.Write("agent.json", "{}");
    std::filesystem::permissions(config, std::filesystem::perms(0666));
    const ChildProcess::Result result = Run({"run", "--config", config});
    EXPECT_EQ(result.m_status, 6);
    EXPECT_NE(result.m_errors.find("may be written by others (mode 0666)"), std::string::npos);

    const std::string folder = m_folder / "modules";
    std::filesystem::copy(BUILD_FOLDER "/module", folder);
    std::filesystem::permissions(folder + "/libvmescape_module.so", std::filesystem::perms(0757));
    const ChildProcess::Result modules = RunWith({"--modules", folder});
    EXPECT_EQ(modules.m_status, 1);
    EXPECT_NE(modules.m_errors.find("Module(vmescape_module) is refused: "), std::string::npos)
        << modules.m_errors;
}

TEST_F(AgentProgram, EndsWithSixWhenTheConfigurationIsWrong) {
    const std::string config = m_folder.Write("agent.json", R"({"report": {"format": 3}})");
    const ChildProcess::Result wrong = Run({"run", "--config", config});
    EXPECT_EQ(wrong.m_status, 6);
    EXPECT_NE(
        wrong.m_errors.find(
            config + ": /report/format: expected one of: auto text json ocsf ecs, found a number"),
        std::string::npos)
        << wrong.m_errors;
    EXPECT_EQ(Run({"run", "--config", m_folder / "missing"}).m_status, 6);
}

TEST_F(AgentProgram, EndsWithOneWhenAModuleCannotBeLoaded) {
    const ChildProcess::Result result = RunWith({"--modules", m_folder.Path()});
    EXPECT_EQ(result.m_status, 1);
    EXPECT_NE(result.m_errors.find("Module(process_collect_module) cannot be loaded"),
              std::string::npos);
}

TEST_F(AgentProgram, EndsWithOneWhenAModuleDoesNotStart) {
    const ChildProcess::Result result = RunWith({"--output", "file:" + m_folder / "no/alarms"});
    EXPECT_EQ(result.m_status, 1);
    EXPECT_NE(result.m_errors.find("no/alarms) cannot be opened"), std::string::npos);
}

TEST_F(AgentProgram, RunsWithoutModulesThatAreOptional) {
    Agent agent(BUILD_FOLDER, "",
                {"--modules", m_folder.Path(), "-o",
                 "optional_modules=process_collect_module,filenotify_module,net_collect_module,"
                 "data_comm_module,vmescape_module"});
    EXPECT_EQ(agent.CountLog("is optional, the agent goes on without it"), 5);
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
}

TEST_F(AgentProgram, ChecksPolicyFilesBeforeTheyAreUsed) {
    const std::string good = SOURCE_FOLDER "/policies/" + std::string(Agent::POLICY_FILE);
    EXPECT_EQ(Run({"check", good}).m_status, 0);
    const std::string bad = m_folder.Write(Agent::POLICY_FILE, R"({"module_name": 1})");
    const ChildProcess::Result result = Run({"check", good, bad});
    EXPECT_EQ(result.m_status, 6);
    EXPECT_NE(
        result.m_errors.find(bad + ": /module_name: expected \"vmescape_module\", found a number"),
        std::string::npos)
        << result.m_errors;
    EXPECT_EQ(Run({"check", m_folder / "missing"}).m_status, 6);
}

TEST_F(AgentProgram, ChecksWithWarningsAreGood) {
    const std::string file = m_folder.Write(
        Agent::POLICY_FILE, R"({"module_name": "vmescape_module", "note": 1, "content":
            {"monitor_list": [{"virtcmd": "kvm", "cmdlist": []}]}})");
    const ChildProcess::Result result = Run({"check", file});
    EXPECT_EQ(result.m_status, 0);
    EXPECT_EQ(result.m_errors, file + ": /note: warning: unknown key\n");
}

TEST_F(AgentProgram, WritesAlarmsToStandardOutputAsOneDocumentALine) {
    LiveTest::SetUp();
    if (IsSkipped()) {
        return;
    }
    Agent agent(BUILD_FOLDER, DenyList(), {"--output", "stdout"});
    const Qemu qemu({"-name", "guest=vm-out"});
    qemu.RunShell("id");
    EXPECT_TRUE(TestSupport::WaitUntil(
        [&] { return agent.Child().Output().find("\"system/fork\"") != std::string::npos; }));
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    const std::string output = agent.Child().Output();
    EXPECT_EQ(output.front(), '{');
    EXPECT_EQ(output.substr(output.length() - 2), "}\n");
}

TEST_F(AgentProgram, OutlivesTheReaderOfItsStandardOutput) {
    LiveTest::SetUp();
    if (IsSkipped()) {
        return;
    }
    Agent agent(BUILD_FOLDER, DenyList(), {"--output", "stdout"});
    agent.Child().CloseOutput();
    const Qemu qemu({"-name", "guest=vm-out"});
    qemu.RunShell("id");
    EXPECT_TRUE(agent.WaitForLog("Output(stdout) cannot be written: Broken pipe"));
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
}

TEST_F(AgentProgram, TellsItsStatusWhileItRuns) {
    Agent agent(BUILD_FOLDER, DenyList());
    const std::vector<std::string> ask = {"status", "--socket", agent.StatusSocket()};
    const ChildProcess::Result text = Run(ask);
    EXPECT_EQ(text.m_status, 0) << text.m_errors;
    EXPECT_NE(text.m_output.find(", pid " + std::to_string(agent.Child().Pid())), std::string::npos)
        << text.m_output;
    EXPECT_NE(text.m_output.find("procs_real_task           up"), std::string::npos);
    // A policy that is refused is seen at once, and that it was mended too.
    agent.Policies().Write(Agent::POLICY_FILE, "no JSON");
    EXPECT_TRUE(agent.WaitForLog("is refused"));
    const ChildProcess::Result degraded =
        Run({"status", "--json", "--socket", agent.StatusSocket()});
    EXPECT_EQ(degraded.m_status, 1);
    EXPECT_NE(degraded.m_output.find("\"state\":\"degraded\""), std::string::npos);
    agent.Policies().Write(Agent::POLICY_FILE, DenyList());
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return Run(ask).m_status == 0; }));
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    const ChildProcess::Result gone = Run(ask);
    EXPECT_EQ(gone.m_status, 1);
    EXPECT_EQ(gone.m_errors, "vmescape-agent: no agent answers at " + agent.StatusSocket() +
                                 ": No such file or directory\n");
}

TEST_F(AgentProgram, ItsBooksBalanceAndTellOfTheLastAlarm) {
    Agent agent(BUILD_FOLDER,
                {{Agent::POLICY_FILE, DenyList()},
                 {Agent::FILE_POLICY_FILE, Agent::FilePolicy(true, {"/etc/cron.d"}, {})},
                 {Agent::PORT_POLICY_FILE, Agent::PortPolicy({})}});
    const auto status = [&agent] {
        Json::Value document;
        const std::string text =
            Run({"status", "--json", "--socket", agent.StatusSocket()}).m_output;
        SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), document);
        return document;
    };
    EXPECT_EQ(status()["last_alarm"].asString(), "");
    EXPECT_EQ(status()["machines"].asUInt(), 0U);
    const TestSupport::QemuProcess qemu({"-name", "guest=vm-books"});
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return status()["machines"].asUInt() == 1; }));
    qemu.RunShell("id");
    EXPECT_FALSE(WaitFor(agent, "system/fork", "id").isNull());
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return !status()["last_alarm"].asString().empty(); }));
    std::map<std::string, Json::UInt64> seen;
    const Json::Value document = status();
    for (const Json::Value& book : document["books"]) {
        Json::UInt64 sum = book["delivered"].asUInt64() + book["waiting"].asUInt64();
        for (const char* kind : {"filtered", "lost"}) {
            for (const Json::Value& count : book[kind]) {
                sum += count.asUInt64();
            }
        }
        EXPECT_EQ(book["seen"].asUInt64(), sum) << book.toStyledString();
        seen[book["name"].asString()] = sum;
    }
    EXPECT_GT(seen["process_events"], 0U);
    EXPECT_GT(seen["alarms"], 0U);
    EXPECT_GT(seen["socket_tables"], 0U);
    EXPECT_TRUE(seen.count("file_events") == 1 && seen.count("file_messages") == 1);
}

}  // namespace
