#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/WaitUntil.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

namespace {

using TestSupport::ChildProcess;
using TestSupport::WaitUntil;
using Strings = std::vector<std::string>;

const std::string kAgent = BUILD_FOLDER "/bin/vmescape-agent";

/// What two alarms about the same have in common, whenever they come.
std::string Substance(const Json::Value& alarm) {
    Json::Value copy = alarm;
    copy.removeMember("event_id");
    copy.removeMember("occur_time");
    return SDK::JsonUtils::JsonToString(copy);
}

class RecordReplay : public LiveTest {
protected:
    static Agent::PolicyTexts Policies(const std::string& commands, const std::string& files,
                                       const std::string& ports) {
        return {{Agent::POLICY_FILE, commands},
                {Agent::FILE_POLICY_FILE, files},
                {Agent::PORT_POLICY_FILE, ports}};
    }

    /// Replays the recording by other policies.
    std::multiset<std::string> ReplayBy(const Agent::PolicyTexts& policies, Strings before = {}) {
        const TestSupport::TemporaryFolder folder;
        for (const auto& [file, text] : policies) {
            folder.Write(file, text);
        }
        before.insert(before.end(),
                      {kAgent, "replay", m_recording, "--config",
                       m_folder.Write("replay.json", "{}"), "--policies", folder.Path()});
        const ChildProcess::Result result = ChildProcess::Run(before, std::chrono::seconds(60));
        EXPECT_EQ(result.m_status, 0) << result.m_errors;
        EXPECT_EQ(result.m_errors.find("warning"), std::string::npos) << result.m_errors;
        std::multiset<std::string> alarms;
        std::istringstream lines(result.m_output);
        for (std::string line; std::getline(lines, line);) {
            Json::Value alarm;
            EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.c_str(), line.length(), alarm), 0) << line;
            alarms.insert(Substance(alarm));
        }
        return alarms;
    }

    static std::multiset<std::string> Substances(const std::vector<Json::Value>& alarms) {
        std::multiset<std::string> substances;
        for (const Json::Value& alarm : alarms) {
            substances.insert(Substance(alarm));
        }
        return substances;
    }

    static std::size_t Count(const Agent& agent, const std::string& eventClass) {
        const std::vector<Json::Value> alarms = agent.Alarms();
        return static_cast<std::size_t>(std::count_if(
            alarms.begin(), alarms.end(),
            [&](const Json::Value& alarm) { return alarm["event_classid"] == eventClass; }));
    }

    Json::Value Books(const Agent& agent) const {
        const std::string text =
            ChildProcess::Run({kAgent, "status", "--json", "--socket", agent.StatusSocket()})
                .m_output;
        Json::Value status;
        SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), status);
        for (const Json::Value& book : status["books"]) {
            if (book["name"] == "recording") {
                return book;
            }
        }
        return {};
    }

    TestSupport::TemporaryFolder m_folder;
    TestSupport::TemporaryFolder m_secrets;
    const std::string m_recording = m_folder / "recording";
    const Strings m_record = {"--record", m_recording, "--log-level", "information"};
};

TEST_F(RecordReplay, OfABreakOutRaisesTheSameAlarmsAndOthersByOtherPolicies) {
    const std::string secret = m_secrets.Write("secret", "text");
    const auto policies = Policies(
        DenyList(), Agent::FilePolicy(false, {m_secrets.Path()}, {secret}), Agent::PortPolicy({}));
    const std::string qmp = "tcp:127.0.0.1:28123,server,nowait";
    const Qemu early({"-name", "guest=vm-early"});
    Agent agent(BUILD_FOLDER, policies, m_record);
    ASSERT_TRUE(agent.WaitForLog(" directories are watched."));
    const Qemu qemu({"-name", "guest=vm-01,debug-threads=on", "-qmp", qmp});
    qemu.Command("object_add secret,id=s0,file=" + secret);
    qemu.RunShell("/usr/bin/id; /usr/bin/true; /usr/bin/uname; exit 1");
    early.RunShell("cat " + secret);
    ASSERT_TRUE(WaitUntil(
        [&] {
            return Count(agent, "vmescape_0001") >= 4 && Count(agent, "vmescape_0002") >= 3 &&
                   Count(agent, "vmescape_0003") >= 1;
        },
        std::chrono::seconds(30)))
        << agent.Log();
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    struct stat status {};
    ASSERT_EQ(::stat(m_recording.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    const auto live = Substances(agent.Alarms());
    EXPECT_EQ(ReplayBy(policies), live);
    EXPECT_EQ(ReplayBy(policies, {"setpriv", "--bounding-set=-all", "--inh-caps=-all"}), live)
        << "without any power";

    const std::string other = R"({"module_name":"vmescape_module","enabled":true,"content":)"
                              R"({"monitor_list":[{"virtcmd":"other","cmdlist":[]}]}})";
    EXPECT_TRUE(ReplayBy(Policies(other, Agent::FilePolicy(true, {m_secrets.Path()}, {secret}),
                                  Agent::PortPolicy({"28123"})))
                    .empty());
    const auto strict = ReplayBy(
        Policies(Agent::Policy(false, {"/usr/bin/id", "/usr/bin/true", "/usr/bin/uname"}),
                 policies.at(Agent::FILE_POLICY_FILE), policies.at(Agent::PORT_POLICY_FILE)));
    EXPECT_EQ(strict.size(), live.size() + 1);
    EXPECT_TRUE(std::includes(strict.begin(), strict.end(), live.begin(), live.end()));
}

TEST_F(RecordReplay, KnowsWhoTouchedAFileThoughItWasGoneAtOnce) {
    Need(::access("/dev/net/tun", R_OK | W_OK) == 0 ? "" : "/dev/net/tun cannot be used");
    if (IsSkipped()) {
        return;
    }
    constexpr int kChildren = 20;
    const std::string secret = m_secrets.Write("secret", "text");
    const std::string script = m_folder.Write("reader", "#!/usr/bin/cat " + secret + "\n");
    ::chmod(script.c_str(), 0755);
    const Agent::PolicyTexts policies = {
        {Agent::FILE_POLICY_FILE, Agent::FilePolicy(false, {m_secrets.Path()}, {secret})}};
    Agent agent(BUILD_FOLDER, policies, m_record);
    ASSERT_TRUE(agent.WaitForLog(" directories are watched."));
    const Qemu qemu({"-name", "guest=vm-tap"});
    for (int i = 0; i < kChildren; ++i) {
        const std::string id = "n" + std::to_string(i);
        qemu.Command("netdev_add tap,id=" + id +
                     ",ifname=tapvmescape2,downscript=no,script=" + script);
        qemu.Command("netdev_del " + id);
    }
    ASSERT_TRUE(WaitUntil([&] { return agent.Alarms().size() >= 3U * kChildren; }))
        << agent.Alarms().size();
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    EXPECT_EQ(ReplayBy(policies), Substances(agent.Alarms()));
}

TEST_F(RecordReplay, KeepsBooksWhileItRecords) {
    Agent agent(BUILD_FOLDER, DenyList(), m_record);
    ChildProcess::Run({"/usr/bin/true"});
    EXPECT_TRUE(WaitUntil([&] { return Books(agent)["kinds"]["exec"].asInt() > 0; }));
    const Json::Value books = Books(agent);
    EXPECT_EQ(books["by"], m_recording);
    EXPECT_EQ(books["seen"].asInt64(), books["delivered"].asInt64() + books["waiting"].asInt64());
    EXPECT_GT(books["kinds"]["snapshot"].asInt(), 1);
    EXPECT_EQ(books["trouble"], "");
}

TEST_F(RecordReplay, IsRefusedAtThePromptWhereAFileIsInTheWay) {
    m_folder.Write("recording", "something");
    const ChildProcess::Result result =
        ChildProcess::Run({kAgent, "run", "--config", m_folder.Write("agent.json", "{}"),
                           "--policies", m_folder.Path(), "--record", m_recording});
    EXPECT_EQ(result.m_status, 1);
    EXPECT_NE(result.m_errors.find("Nothing can be recorded: " + m_recording +
                                   ": is not empty, and a recording overwrites nothing"),
              std::string::npos)
        << result.m_errors;
    EXPECT_EQ(TestSupport::ReadText(m_recording), "something");
}

TEST_F(RecordReplay, DoesNotKeepAServiceFromDetecting) {
    m_folder.Write("recording", "something");
    Json::Value config;
    config["record"]["file"] = m_recording;
    config["policies"] = m_folder / "policies";
    config["status"]["socket"] = m_folder / "status";
    std::filesystem::create_directory(m_folder / "policies");
    m_folder.Write("policies/" + std::string(Agent::POLICY_FILE), DenyList());
    ChildProcess agent({kAgent, "run", "--config",
                        m_folder.Write("agent.json", SDK::JsonUtils::JsonToString(config))});
    ASSERT_TRUE(
        WaitUntil([&] { return agent.Errors().find(" is running, ") != std::string::npos; }));
    const ChildProcess::Result status =
        ChildProcess::Run({kAgent, "status", "--socket", m_folder / "status"});
    EXPECT_EQ(status.m_status, 1);
    EXPECT_NE(status.m_output.find("Nothing is recorded: " + m_recording), std::string::npos)
        << status.m_output;
    agent.Signal(SIGTERM);
    EXPECT_EQ(agent.Wait().value_or(-1), 0);
}

TEST_F(RecordReplay, OfAnAgentThatWasKilledGoesAsFarAsItWrote) {
    const auto policies = Agent::PolicyTexts{{Agent::POLICY_FILE, DenyList()}};
    Agent agent(BUILD_FOLDER, policies, m_record);
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.RunShell("/usr/bin/id; exit 1");
    ASSERT_FALSE(WaitFor(agent, "system/fork", "/usr/bin/id").isNull());
    ASSERT_TRUE(WaitUntil([&] {
        return TestSupport::ReadText(m_recording).find("\"/usr/bin/id\"") != std::string::npos;
    }));
    EXPECT_EQ(agent.Stop(SIGKILL), 128 + SIGKILL);
    const TestSupport::TemporaryFolder folder;
    folder.Write(Agent::POLICY_FILE, DenyList());
    const ChildProcess::Result result =
        ChildProcess::Run({kAgent, "replay", m_recording, "--config", folder.Write("c", "{}"),
                           "--policies", folder.Path()});
    EXPECT_EQ(result.m_status, 0);
    EXPECT_NE(result.m_output.find("/usr/bin/id"), std::string::npos) << result.m_errors;
    EXPECT_NE(result.m_errors.find("there is no end, the agent was ended"), std::string::npos);
}

}  // namespace
