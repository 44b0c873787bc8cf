// The agent learns which policies would have been silent.

#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/WaitUntil.h"

#include <json/writer.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using TestSupport::ChildProcess;
using Texts = std::set<std::string>;

constexpr std::chrono::seconds kPatience(60);

/// The processes that a process has started and not yet buried.
std::vector<pid_t> ChildrenOf(pid_t pid) {
    const std::string number = std::to_string(pid);
    std::istringstream text(
        TestSupport::ReadText("/proc/" + number + "/task/" + number + "/children"));
    std::vector<pid_t> children;
    for (pid_t child = 0; text >> child;) {
        children.push_back(child);
    }
    return children;
}

auto CountScratchFolders() {
    return std::count_if(fs::directory_iterator("/tmp"), fs::directory_iterator(),
                         [](const fs::directory_entry& entry) {
                             return entry.path().filename().string().rfind("vmescape-learn-", 0) ==
                                    0;
                         });
}

Json::Value Parsed(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), value), 0) << text;
    return value;
}

class Learn : public LiveTest {
protected:
    Learn() {
        m_policies.Write(Agent::POLICY_FILE, Agent::Policy(false, {"/usr/bin/id"}));
        m_policies.Write(Agent::FILE_POLICY_FILE,
                         Agent::FilePolicy(false, {m_watched.Path()}, {"/etc/shadow"}));
        m_policies.Write(Agent::PORT_POLICY_FILE, Agent::PortPolicy({"1"}));
        m_config = m_folder.Write("agent.json", R"({"policies":")" + m_policies.Path() + "\"}");
    }

    /// The command line of a lesson. @param more  words at its end
    std::vector<std::string> CommandLine(const std::string& duration,
                                         const std::vector<std::string>& more = {}) const {
        std::vector<std::string> words = {BUILD_FOLDER "/bin/vmescape-agent",
                                          "learn",
                                          "--for",
                                          duration,
                                          "--into",
                                          m_drafts,
                                          "--config",
                                          m_config};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }

    ChildProcess::Result RunFor(const std::string& duration,
                                const std::vector<std::string>& more = {}) const {
        return ChildProcess::Run(CommandLine(duration, more), kPatience);
    }

    static bool WaitForError(ChildProcess& child, const std::string& part) {
        return TestSupport::WaitUntil(
            [&] { return child.Errors().find(part) != std::string::npos; }, kPatience);
    }

    /// What a rule of a policy that was learned lists.
    Texts Listed(const std::string& file, const std::string& list) const {
        const Json::Value policy = Parsed(TestSupport::ReadText(m_drafts + '/' + file));
        EXPECT_EQ(policy["content"]["monitor_list"].size(), 1U);
        Texts texts;
        for (const Json::Value& text : policy["content"]["monitor_list"][0][list]) {
            texts.insert(text.asString());
        }
        return texts;
    }

    TestSupport::TemporaryFolder m_folder;
    TestSupport::TemporaryFolder m_policies;
    TestSupport::TemporaryFolder m_watched;
    const std::string m_drafts = m_folder / "drafts";
    std::string m_config;
};

/// A machine that does something of each class, as often as it is started.
class Lesson : public Learn {
protected:
    Lesson() {
        // Not in /tmp: what runs from there cannot be allowed.
        fs::copy_file("/usr/bin/true", m_helper);
        fs::copy_file("/usr/bin/true", m_programs / "unknown");
        m_programs.Write("perl", "#!/usr/bin/perl\nsystem('/usr/bin/perl', '-e', 'exit 0');\n");
        ::chmod(m_script.c_str(), S_IRWXU);
        m_watched.Write("disk", std::string(1 << 20, 'x'));
        for (int port = 21000; m_ports.size() < 3; ++port) {
            if (IsFree(port)) {
                m_ports.push_back(std::to_string(port));
            }
        }
    }

    void SetUp() override {
        LiveTest::SetUp();
        Need(::access("/dev/net/tun", R_OK | W_OK) == 0 ? "" : "/dev/net/tun cannot be used");
    }

    /// Starts it and lets it do what it always does.
    std::unique_ptr<Qemu> Live() const {
        const std::string tap = "tap,downscript=no,";
        auto machine = std::make_unique<Qemu>(std::vector<std::string>{
            "-name", "guest=vm-learn",                                             //
            "-netdev", tap + "id=n0,ifname=tapvmescape2,script=" + m_helper,       //
            "-netdev", tap + "id=n1,ifname=tapvmescape3,script=" + m_script,       //
            "-netdev", "user,id=n2,hostfwd=tcp:127.0.0.1:" + m_ports[0] + "-:22",  //
            "-drive", "file=" + m_watched / "disk" + ",if=none,id=d0,format=raw"});
        machine->Command("nbd_server_start -a 127.0.0.1:" + m_ports[1]);
        return machine;
    }

    /// Learns on a terminal until a machine's life was seen, and is interrupted.
    /// @return its exit status
    int LearnFrom(const std::string& seen) {
        std::string command = "exec";
        for (const std::string& word : CommandLine("1h", {"--json"})) {
            command += ' ' + word;
        }
        ChildProcess terminal({"script", "--quiet", "--return", "--flush", "--command",
                               command + " >" + m_folder / "result", "/dev/null"});
        const auto shows = [&](const std::string& part) {
            return TestSupport::WaitUntil(
                [&] { return terminal.Output().find(part) != std::string::npos; }, kPatience);
        };
        EXPECT_TRUE(shows("left, 0 commands, 0 files, 0 ports")) << terminal.Output();
        const std::unique_ptr<Qemu> machine = Live();
        machine->RunShell("exit 0");
        EXPECT_TRUE(shows(seen)) << terminal.Output();
        const std::vector<pid_t> children = ChildrenOf(terminal.Pid());
        EXPECT_EQ(children.size(), 1U);
        ::kill(children.at(0), SIGINT);
        const int status = terminal.Wait(kPatience).value_or(-1);
        m_result = Parsed(TestSupport::ReadText(m_folder / "result"));
        return status;
    }

    /// The policies that were learned.
    Agent::PolicyTexts Drafts() const {
        Agent::PolicyTexts texts;
        for (const char* file :
             {Agent::POLICY_FILE, Agent::FILE_POLICY_FILE, Agent::PORT_POLICY_FILE}) {
            texts[file] = TestSupport::ReadText(m_drafts + '/' + file);
        }
        return texts;
    }

    /// What an agent has raised alarms for.
    static Texts Raised(const Agent& agent) {
        Texts raised;
        for (const Json::Value& alarm : agent.Alarms()) {
            raised.insert(Command(alarm) + alarm["file_info"][0]["file_path"].asString() +
                          alarm["forensic_info"]["abnormal_port"].asString());
        }
        return raised;
    }

    TestSupport::TemporaryFolder m_programs{"/var/tmp"};
    const std::string m_helper = m_programs / "helper";
    // Named as its interpreter: what it runs next has the name and the pid of the fork before it,
    // and so is the same to the detection, which tells of it in its log only.
    const std::string m_script = m_programs / "perl";
    std::vector<std::string> m_ports;
    Json::Value m_result;
};

TEST_F(Lesson, NamesExactlyWhatHappenedAndIsSilentWhenItHappensAgain) {
    EXPECT_EQ(LearnFrom("4 commands, 1 files, 2 ports"), 3) << m_result;
    EXPECT_EQ(Listed(Agent::POLICY_FILE, "cmdlist"),
              (Texts{m_helper, "/usr/bin/perl " + m_script + " tapvmescape3",
                     "/usr/bin/perl -e exit 0"}));
    EXPECT_EQ(Listed(Agent::FILE_POLICY_FILE, "filelist"), Texts{m_watched / "disk"});
    EXPECT_EQ(Listed(Agent::PORT_POLICY_FILE, "portlist"), (Texts{m_ports[0], m_ports[1]}));
    EXPECT_TRUE(m_result["interrupted"].asBool());
    EXPECT_TRUE(m_result["missed"].empty()) << m_result["missed"];
    ASSERT_EQ(m_result["cannot_be_allowed"].size(), 1U) << m_result;
    EXPECT_EQ(m_result["cannot_be_allowed"][0]["text"], "/bin/sh -c exit 0");

    Agent agent(BUILD_FOLDER, Drafts(), {"--log-level", "information"});
    ASSERT_TRUE(agent.WaitForLog(" directories are watched."));
    const std::unique_ptr<Qemu> machine = Live();
    // Then something new of each class. What was before it has been judged before it.
    machine->Command("netdev_add tap,id=n3,ifname=tapvmescape4,downscript=no,script=" +
                     m_programs / "unknown");
    machine->Command("logfile " + m_watched / "log");
    machine->Command("gdbserver tcp:127.0.0.1:" + m_ports[2]);
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return Raised(agent).size() >= 3; }, kPatience));
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    EXPECT_EQ(Raised(agent),
              (Texts{m_programs / "unknown" + " tapvmescape4", m_watched / "log", m_ports[2]}));
}

TEST_F(Learn, WritesPoliciesThatTheCheckFindsGood) {
    const ChildProcess::Result result = RunFor("1");
    EXPECT_EQ(result.m_status, 0) << result.m_errors;
    EXPECT_NE(result.m_output.find("Nothing is allowed for: qemu-system-x86_64\n"),
              std::string::npos)
        << result.m_output;
    for (const char* file :
         {Agent::POLICY_FILE, Agent::FILE_POLICY_FILE, Agent::PORT_POLICY_FILE}) {
        const std::string path = m_drafts + '/' + file;
        const ChildProcess::Result checked =
            ChildProcess::Run({BUILD_FOLDER "/bin/vmescape-agent", "check", path});
        EXPECT_EQ(checked.m_status, 0);
        EXPECT_EQ(checked.m_errors, "");
        EXPECT_EQ(static_cast<unsigned>(fs::status(path).permissions()), 0640U);
    }
    EXPECT_EQ(Listed(Agent::FILE_POLICY_FILE, "filelist"), Texts{});
    const Json::Value policy =
        Parsed(TestSupport::ReadText(m_drafts + '/' + Agent::FILE_POLICY_FILE));
    EXPECT_EQ(policy["content"]["senstive_dirs"][0], m_watched.Path());
    EXPECT_EQ(policy["hash"].asString().rfind("learned 20", 0), 0U) << policy["hash"];
}

TEST_F(Learn, DoesNotWaitForDirectoriesThatAreNotThere) {
    m_policies.Write(Agent::FILE_POLICY_FILE, Agent::FilePolicy(true, {"/no/such/folder"}, {}));
    EXPECT_EQ(RunFor("1").m_status, 0);
}

TEST_F(Learn, IsContentWithOnePolicy) {
    fs::remove(m_policies / Agent::POLICY_FILE);
    fs::remove(m_policies / Agent::FILE_POLICY_FILE);
    EXPECT_EQ(RunFor("1").m_status, 0);
    EXPECT_FALSE(fs::exists(m_drafts + '/' + Agent::POLICY_FILE));
    EXPECT_EQ(Listed(Agent::PORT_POLICY_FILE, "portlist"), Texts{});
}

TEST_F(Learn, SaysThatItMayBeTooNarrowWhenAnAgentEnds) {
    ChildProcess learn(CommandLine("1h"));
    ASSERT_TRUE(WaitForError(learn, "learning for 1h")) << learn.Errors();
    const std::vector<pid_t> agents = ChildrenOf(learn.Pid());
    ASSERT_EQ(agents.size(), 2U);
    ::kill(agents[1], SIGKILL);
    EXPECT_EQ(learn.Wait(kPatience), 1);
    EXPECT_NE(learn.Output().find("The policies may be too narrow:\n    the agent ended before the "
                                  "time was over, with status 137\n"),
              std::string::npos)
        << learn.Output();
    EXPECT_TRUE(fs::exists(m_drafts + '/' + Agent::PORT_POLICY_FILE));
}

TEST_F(Learn, KeepsWhatItLearnedAndCleansUpWhenNobodyReadsTheReport) {
    const auto before = CountScratchFolders();
    ChildProcess learn(CommandLine("1"));
    learn.CloseOutput();
    EXPECT_EQ(learn.Wait(kPatience), 1);
    EXPECT_NE(learn.Errors().find("the result cannot be written to standard output"),
              std::string::npos)
        << learn.Errors();
    EXPECT_TRUE(fs::exists(m_drafts + '/' + Agent::PORT_POLICY_FILE));
    EXPECT_EQ(CountScratchFolders(), before);
}

TEST_F(Learn, LearnsTheRestWhereTheOptionalFileModuleIsMissing) {
    const TestSupport::TemporaryFolder modules;
    for (const fs::directory_entry& module : fs::directory_iterator(BUILD_FOLDER "/module")) {
        if (module.path().extension() == ".so" &&
            module.path().filename() != "libfilenotify_module.so") {
            fs::copy(module.path(), modules / module.path().filename().string());
        }
    }
    m_folder.Write("agent.json", R"({"optional_modules":["filenotify_module"],"policies":")" +
                                     m_policies.Path() + "\"}");
    const ChildProcess::Result result = RunFor("1", {"--modules", modules.Path()});
    EXPECT_EQ(result.m_status, 1);
    EXPECT_NE(result.m_output.find("files were not learned"), std::string::npos) << result.m_errors;
    EXPECT_TRUE(fs::exists(m_drafts + '/' + Agent::PORT_POLICY_FILE));
}

TEST_F(Learn, LeavesNothingBehindWhenItIsInterruptedBeforeItBegins) {
    const auto before = CountScratchFolders();
    ChildProcess learn(CommandLine("1h"));
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return !ChildrenOf(learn.Pid()).empty(); }));
    learn.Signal(SIGTERM);
    EXPECT_EQ(learn.Wait(kPatience), 1);
    EXPECT_NE(learn.Errors().find("interrupted, nothing was learned"), std::string::npos)
        << learn.Errors();
    EXPECT_EQ(CountScratchFolders(), before);
    EXPECT_TRUE(fs::is_empty(m_drafts));
}

TEST_F(Learn, NeverWritesWherePoliciesAreInForce) {
    fs::create_symlink(m_policies.Path(), m_drafts);
    const ChildProcess::Result result = RunFor("1h");
    EXPECT_EQ(result.m_status, 2);
    EXPECT_NE(result.m_errors.find("is where policies are in force, expected another folder"),
              std::string::npos)
        << result.m_errors;
}

TEST_F(Learn, WritesNothingOver) {
    fs::create_directory(m_drafts);
    std::ofstream(m_drafts + '/' + Agent::PORT_POLICY_FILE) << "mine";
    const ChildProcess::Result result = RunFor("1h");
    EXPECT_EQ(result.m_status, 2);
    EXPECT_NE(result.m_errors.find("is there already and is not written over"), std::string::npos)
        << result.m_errors;
    EXPECT_EQ(TestSupport::ReadText(m_drafts + '/' + Agent::PORT_POLICY_FILE), "mine");
}

TEST_F(Learn, NeedsPoliciesToBeginWith) {
    const TestSupport::TemporaryFolder empty;
    const ChildProcess::Result result = RunFor("1h", {"--policies", empty.Path()});
    EXPECT_EQ(result.m_status, 6);
    EXPECT_NE(result.m_errors.find("there is no policy in " + empty.Path()), std::string::npos)
        << result.m_errors;
    m_policies.Write(Agent::PORT_POLICY_FILE, "{}");
    const ChildProcess::Result wrong = RunFor("1h");
    EXPECT_EQ(wrong.m_status, 6);
    EXPECT_NE(wrong.m_errors.find("/module_name: expected"), std::string::npos) << wrong.m_errors;
}

TEST_F(Learn, EndsWithFourWhenAPrivilegeIsMissing) {
    std::vector<std::string> words = {"setpriv", "--bounding-set=-all", "--inh-caps=-all"};
    const std::vector<std::string> learn = CommandLine("1h");
    words.insert(words.end(), learn.begin(), learn.end());
    const ChildProcess::Result result = ChildProcess::Run(words, kPatience);
    EXPECT_EQ(result.m_status, 4);
    EXPECT_NE(result.m_errors.find("missing privilege: "), std::string::npos) << result.m_errors;
}

}  // namespace
