// What the agent watches, as it tells who asks.

#include "LiveTest.h"
#include "StatusServer.h"
#include "sdk/JsonUtils.h"
#include "sdk/UniqueDescriptor.h"
#include "support/WaitUntil.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <map>

namespace {

using TestSupport::ChildProcess;
using TestSupport::WaitUntil;

class List : public LiveTest {
protected:
    static ChildProcess::Result Ask(const Agent& agent, std::vector<std::string> verb) {
        verb.insert(verb.begin(), BUILD_FOLDER "/bin/vmescape-agent");
        verb.insert(verb.end(), {"--socket", agent.StatusSocket()});
        return ChildProcess::Run(verb);
    }
    static Json::Value AskJson(const Agent& agent, const std::string& verb) {
        const std::string text = Ask(agent, {verb, "--json"}).m_output;
        Json::Value document;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), document), 0) << text;
        return document;
    }

    /// The machines of a list by their pids.
    static std::map<int, Json::Value> Machines(const Json::Value& list) {
        std::map<int, Json::Value> machines;
        for (const Json::Value& machine : list["machines"]) {
            machines[machine["pid"].asInt()] = machine;
        }
        return machines;
    }

    static std::string Switched(const std::string& policy, bool enabled) {
        Json::Value document;
        SDK::JsonUtils::ParseJsonStr(policy.c_str(), policy.length(), document);
        document["enabled"] = enabled;
        return SDK::JsonUtils::JsonToString(document);
    }
};

TEST_F(List, NamesEveryMachineAndTheRulesInForce) {
    const TestSupport::TemporaryFolder folder;
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    // Whoever reads there waits until this test ends.
    const SDK::UniqueDescriptor open(::open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    Agent agent(BUILD_FOLDER, {{Agent::POLICY_FILE, DenyList()},
                               {Agent::PORT_POLICY_FILE, Agent::PortPolicy({"5900"})}});
    const Qemu one({"-name", "guest=vm-one,debug-threads=on"});
    const Qemu two({"-name", "vm-two"});
    const Qemu nameless({});
    one.Command("migrate -d \"exec:cat " + pipe + "\"");
    Json::Value list;
    EXPECT_TRUE(WaitUntil([&] {
        list = AskJson(agent, "list");
        return list["machines"].size() == 3 && Machines(list)[one.Pid()]["below"].asUInt() > 0;
    })) << list.toStyledString();
    std::map<int, Json::Value> machines = Machines(list);
    EXPECT_EQ(machines[one.Pid()]["vm_name"].asString(), "vm-one");
    EXPECT_EQ(machines[two.Pid()]["vm_name"].asString(), "vm-two");
    EXPECT_EQ(machines[nameless.Pid()]["vm_name"].asString(), "Unknow");
    for (const auto& [pid, machine] : machines) {
        EXPECT_EQ(machine["name"].asString(), "qemu-system-x86_64");
        EXPECT_EQ(machine["since"].asString().length(), 20U) << machine.toStyledString();
        EXPECT_EQ(SDK::JsonUtils::JsonToString(machine["detections"]), R"(["commands","ports"])");
    }
    EXPECT_EQ(machines[two.Pid()]["below"].asUInt(), 0U);
    EXPECT_EQ(AskJson(agent, "status")["machines"].asUInt(), 3U);
    ASSERT_EQ(list["policies"].size(), 2U);
    const Json::Value& rule = list["policies"][0]["rules"][0];
    EXPECT_EQ(list["policies"][0]["feature"].asString(), "qemu_cmd_detect_feature");
    EXPECT_EQ(SDK::JsonUtils::JsonToString(rule),
              R"({"entries":["/usr/bin/id","/usr/bin/true"],"list":"deny",)"
              R"("program":"qemu-system-x86_64"})");
    EXPECT_EQ(list["policies"][1]["rules"][0]["entries"][0].asString(), "5900");
    const std::string text = Ask(agent, {"list"}).m_output;
    for (const char* part :
         {"\nvm-one ", "\nvm-two ", "\nUnknow ", "\ndeny           2  /usr/bin/id, ",
          "\nfiles (qemu_file_detect_feature): no policy is in force"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << text;
    }
}

TEST_F(List, ShowsAPolicyThatIsSwitchedOffAndWhatItNoLongerCovers) {
    Agent agent(BUILD_FOLDER, {{Agent::POLICY_FILE, DenyList()},
                               {Agent::PORT_POLICY_FILE, Agent::PortPolicy({})}});
    const Qemu qemu({"-name", "guest=vm-01"});
    const auto covering = [&] {
        return SDK::JsonUtils::JsonToString(AskJson(agent, "list")["machines"][0]["detections"]);
    };
    EXPECT_TRUE(WaitUntil([&] { return covering() == R"(["commands","ports"])"; }));
    agent.Policies().Replace(Agent::POLICY_FILE, Switched(DenyList(), false));
    EXPECT_TRUE(WaitUntil([&] { return covering() == R"(["ports"])"; })) << agent.Log();
    EXPECT_FALSE(AskJson(agent, "list")["policies"][0]["enabled"].asBool());
    EXPECT_NE(
        Ask(agent, {"list"})
            .m_output.find("commands (qemu_cmd_detect_feature): NOT ENABLED, nothing is detected"),
        std::string::npos);
    agent.Policies().Replace(Agent::PORT_POLICY_FILE, Switched(Agent::PortPolicy({}), false));
    EXPECT_TRUE(WaitUntil([&] { return AskJson(agent, "list")["machines"].empty(); }));
    agent.Policies().Replace(Agent::POLICY_FILE, DenyList());
    EXPECT_TRUE(WaitUntil([&] { return covering() == R"(["commands"])"; }));
}

TEST_F(List, IsNotHeldUpBySomebodyWhoSaysNothing) {
    Agent agent(BUILD_FOLDER, DenyList());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    agent.StatusSocket().copy(address.sun_path, sizeof(address.sun_path) - 1);
    const SDK::UniqueDescriptor silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(silent.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(Ask(agent, {"list"}).m_status, 0);
    agent.Policies().Replace(Agent::POLICY_FILE, Switched(DenyList(), false));
    EXPECT_TRUE(
        WaitUntil([&] { return !AskJson(agent, "list")["policies"][0]["enabled"].asBool(); }));
    EXPECT_TRUE(agent.WaitForLog("A client that asked nothing for 5 s is dropped"));
    std::string answer;
    EXPECT_EQ(::Agent::StatusServer::Ask(agent.StatusSocket(), "nonsense", answer), "");
    EXPECT_EQ(answer,
              R"({"error":"expected the request \"status\" or \"list\", found \"nonsense\""})");
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    EXPECT_EQ(Ask(agent, {"list"}).m_status, 1);
}

}  // namespace
