// The published schemas say what the agent says: of policies, of its configuration, of alarms.

#include "LiveTest.h"
#include "Settings.h"
#include "sdk/JsonUtils.h"
#include "support/WaitUntil.h"

#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <tuple>

namespace {

namespace fs = std::filesystem;
using TestSupport::ChildProcess;
using TestSupport::ReadText;
using TestSupport::WaitUntil;

const std::string kAgent = BUILD_FOLDER "/bin/vmescape-agent";
const std::string kPython = "/usr/bin/python3";  // that of the distribution, which has the library

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), value), 0) << text;
    return value;
}

class Schema : public LiveTest {
protected:
    void SetUp() override {
        LiveTest::SetUp();
        Need(ChildProcess::Run({kPython, "-c", "import jsonschema"}).m_status == 0
                 ? ""
                 : "jsonschema is missing");
        m_schemas =
            m_folder.Write("schemas", ChildProcess::Run({kAgent, "schema", "--json"}).m_output);
    }

    /// Adds a document to the corpus. @param name  that of its schema
    void Add(const std::string& name, const std::string& text) {
        const std::string folder = std::to_string(m_files.size());
        fs::create_directory(m_folder / folder);
        m_files.push_back(m_folder.Write(folder + '/' + name + ".json", text));
    }
    void Add(const std::string& name, const Json::Value& document) {
        Add(name, SDK::JsonUtils::JsonToString(document));
    }

    /// Adds a document, and all that differ from it in one place: without what is there, and with
    /// something else there.
    void AddVariants(const std::string& name, const Json::Value& document) {
        Add(name, document);
        Vary(document, [&](const Json::Value& varied) { Add(name, varied); });
    }

    /// What the schemas say: for each file "" or what is wrong.
    Json::Value AskSchemas(const std::vector<std::string>& options = {}) const {
        std::vector<std::string> arguments = {
            kPython, SOURCE_FOLDER "/tests/support/programs/schema_verdicts.py"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.push_back(m_schemas);
        arguments.insert(arguments.end(), m_files.begin(), m_files.end());
        const ChildProcess::Result result = ChildProcess::Run(arguments, std::chrono::seconds(60));
        EXPECT_EQ(result.m_status, 0) << result.m_errors;
        return Parse(result.m_output);
    }

    TestSupport::TemporaryFolder m_folder;
    std::string m_schemas;
    std::vector<std::string> m_files;

private:
    using Take = std::function<void(const Json::Value& varied)>;

    static const std::vector<Json::Value>& OtherValues() {
        static const Json::Value others = Parse(
            R"([null, true, 0, 7, -1, 2.0, 1.5, 1e30, "", "x", "/x", "stdout", "auto", "a\u0000b",)"
            R"("line\n", [], [""], ["/x", "/x"], ["a\u0000"], [1], [[]], {}, {"x": 1}])");
        static const std::vector<Json::Value> list(others.begin(), others.end());
        return list;
    }

    static void Vary(const Json::Value& value, const Take& take) {
        for (const Json::Value& other : OtherValues()) {
            take(other);
        }
        if (value.isArray()) {
            VaryList(value, take);
        } else if (value.isObject()) {
            VaryObject(value, take);
        }
    }

    static void VaryObject(const Json::Value& value, const Take& take) {
        for (const std::string& key : value.getMemberNames()) {
            Json::Value changed = value;
            changed.removeMember(key);
            take(changed);
            Vary(value[key], [&](const Json::Value& below) {
                changed[key] = below;
                take(changed);
            });
        }
        Json::Value more = value;
        more["unknown"] = 1;
        take(more);
    }

    static void VaryList(const Json::Value& value, const Take& take) {
        Json::Value changed = value;
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            Vary(value[i], [&](const Json::Value& below) {
                changed[i] = below;
                take(changed);
            });
            changed[i] = value[i];
        }
        changed.append(value[0]);
        take(changed);
    }
};

/// A policy with more rules and entries than count, which is only warned of.
Json::Value TooLong(Json::Value policy, const char* list) {
    Json::Value& rules = policy["content"]["monitor_list"];
    while (rules[0][list].size() <= 101) {
        rules[0][list].append("x");
    }
    while (rules.size() <= 51) {
        rules.append(rules[0]);
    }
    return policy;
}

TEST_F(Schema, OfPoliciesSaysOfEachWhatCheckSays) {
    const Json::Value commands = Parse(DenyList());
    const Json::Value files = Parse(Agent::FilePolicy(true, {"/etc"}, {"/etc/hosts"}));
    const Json::Value ports = Parse(Agent::PortPolicy({"5900"}));
    for (const auto& [name, policy, list] :
         {std::tuple{"qemu_cmd_detect_feature", commands, "cmdlist"},
          std::tuple{"qemu_file_detect_feature", files, "filelist"},
          std::tuple{"qemu_port_detect_feature", ports, "portlist"}}) {
        Json::Value whole = policy;
        whole["hash"] = "1";
        whole["content"][std::string(name).replace(std::string(name).find("feature"), 7, "task")] =
            "{}";
        AddVariants(name, whole);
        Add(name, TooLong(policy, list));
        Add(name, ReadText(SOURCE_FOLDER "/policies/" + std::string(name) + ".json"));
        Add(name, std::string("no JSON"));
        for (const fs::directory_entry& file :
             fs::directory_iterator(SOURCE_FOLDER "/fuzz/corpus/PolicyCheckerFuzz")) {
            Add(name, ReadText(file.path().string()));
        }
    }
    std::vector<std::string> check = {kAgent, "check", "--json"};
    check.insert(check.end(), m_files.begin(), m_files.end());
    const Json::Value checked = Parse(ChildProcess::Run(check).m_output);
    ASSERT_EQ(checked["files"].size(), m_files.size());
    const Json::Value verdicts = AskSchemas();
    std::map<bool, int> count;
    for (const Json::Value& file : checked["files"]) {
        const bool good = file["good"].asBool();
        const std::string wrong = verdicts[file["file"].asString()].asString();
        ++count[good];
        EXPECT_EQ(wrong.empty(), good) << ReadText(file["file"].asString()) << "\nschema: " << wrong
                                       << "\ncheck: " << file.toStyledString();
    }
    EXPECT_GT(count[true], 100);
    EXPECT_GT(count[false], 500);
}

TEST_F(Schema, OfTheConfigurationSaysOfEachWhatTheAgentSays) {
    AddVariants("agent", Parse(R"({"policies": "/p", "modules": "/m", "optional_modules": ["a"],
        "log_level": "debug", "cpu_share": 10, "status": {"socket": ""},
        "report": {"output": ["stdout", "json:file:/a"], "format": "json", "color": "never",
                   "queue": 5},
        "process_collect": {"source": "bpf", "ring_bytes": 4096, "backlog": 1},
        "filenotify": {"backlog": 1}, "net_collect": {"holders": "proc"},
        "report.queue": 7, "report.output": "syslog"})"));
    for (const char* output : {"stdout",
                               "stdout,file:/x",
                               "text:stdout, ",
                               "stdout,",
                               ",stdout",
                               "stdout,,syslog",
                               "file:",
                               "file:x",
                               "file:/a\n",
                               "stdout\n",
                               "\nstdout",
                               "file:/a\nb",
                               "file:/a,nonsense",
                               "json:text:stdout",
                               "syslog:/a",
                               "syslog:local:/a",
                               "syslog:unix:/a,stdout",
                               "syslog:unix:a",
                               "syslog:unix:/",
                               "syslog:tcp:h:1",
                               "syslog:tcp:h:123456",
                               "syslog:tcp:h:",
                               "syslog:tcp::1",
                               "STDOUT",
                               "json:syslog:tcp:[::1]:601,text:file:/a:b"}) {
        Json::Value config;
        config["report"]["output"] = output;
        Add("agent", config);
        config["report"]["output"] = Json::arrayValue;
        config["report"]["output"].append("stdout");
        config["report"]["output"].append(output);
        Add("agent", config);
    }
    Add("agent", Parse(R"({"report": {"output": ["", "stdout"]}})"));
    Add("agent", ReadText(SOURCE_FOLDER "/packaging/agent.json"));
    const Json::Value verdicts = AskSchemas();
    std::map<bool, int> count;
    for (const std::string& file : m_files) {
        const std::vector<::Agent::Problem> problems = ::Agent::Settings().Load(file);
        const bool good = !::Agent::HasErrors(problems);
        const std::string wrong = verdicts[file].asString();
        ++count[good];
        EXPECT_EQ(wrong.empty(), good) << ReadText(file) << "\nschema: " << wrong
                                       << "\nagent: " << ::Agent::FirstError(problems);
    }
    EXPECT_GT(count[true], 50);
    EXPECT_GT(count[false], 200);
}

TEST_F(Schema, OfAlarmsDescribesAllThatOfARealRunEntirely) {
    const TestSupport::TemporaryFolder watched;
    const std::string secret = watched.Write("secret", "text");
    Agent agent(BUILD_FOLDER,
                {{Agent::POLICY_FILE, DenyList()},
                 {Agent::FILE_POLICY_FILE, Agent::FilePolicy(true, {watched.Path()}, {})},
                 {Agent::PORT_POLICY_FILE, Agent::PortPolicy({})}},
                {"--log-level", "information"});
    ASSERT_TRUE(agent.WaitForLog(" directories are watched."));
    const TestSupport::TemporaryFolder programs("/tmp");
    fs::copy_file("/usr/bin/false", programs / "payload");
    const Qemu named({"-name", "guest=vm-01", "-incoming", "tcp:127.0.0.1:0"});
    const Qemu nameless({});
    nameless.Command("object_add secret,id=s0,file=" + secret);
    nameless.Command("pmemsave 0 16 \"" + watched / "new" + "\"");
    nameless.RunShell("id; " + programs / "payload" + "");
    std::set<std::string> kinds;
    EXPECT_TRUE(WaitUntil(
        [&] {
            for (const Json::Value& alarm : agent.Alarms()) {
                kinds.insert(alarm["event_classid"].asString() + ' ' + Mode(alarm) +
                             alarm["file_info"][0]["file_action"].asString());
            }
            return kinds.size() == 8;
        },
        std::chrono::seconds(40)))
        << agent.Log();
    EXPECT_EQ(kinds, (std::set<std::string>{"vmescape_0001 forbidden dir", "vmescape_0001 shell",
                                            "vmescape_0001 system/fork", "vmescape_0002 access",
                                            "vmescape_0002 close", "vmescape_0002 modify",
                                            "vmescape_0002 open", "vmescape_0003 "}));
    std::map<std::string, Json::Value> samples;
    for (const Json::Value& alarm : agent.Alarms()) {
        Add("alarm", alarm);
        samples[alarm["event_classid"].asString()] = alarm;
    }
    const Json::Value verdicts = AskSchemas({"--closed"});
    for (const std::string& file : m_files) {
        EXPECT_EQ(verdicts[file].asString(), "") << ReadText(file);
    }
    // And it is no schema that takes everything.
    m_files.clear();
    for (const auto& [id, alarm] : samples) {
        for (const std::string& key : alarm.getMemberNames()) {
            Json::Value less = alarm;
            less.removeMember(key);
            Add("alarm", less);
        }
        Json::Value of = alarm;
        of["process_info"][0]["process_pid"] = "1";
        Add("alarm", of);
    }
    const Json::Value refused = AskSchemas();
    for (const std::string& file : m_files) {
        EXPECT_NE(refused[file].asString(), "") << ReadText(file);
    }
}

}  // namespace
