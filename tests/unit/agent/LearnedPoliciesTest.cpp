#include "LearnedPolicies.h"

#include "PolicyChecker.h"
#include "sdk/JsonUtils.h"

#include <gtest/gtest.h>

namespace {

using Agent::CommandEntry;
using Agent::LearnedPolicies;
using Agent::PolicyShape;
using Texts = std::vector<std::string>;

constexpr const char* kCommands = "qemu_cmd_detect_feature";
constexpr const char* kFiles = "qemu_file_detect_feature";
constexpr const char* kPorts = "qemu_port_detect_feature";

Json::Value Parsed(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), value), 0) << text;
    return value;
}

Json::Value CommandAlarm(const std::string& name, const std::string& commandLine,
                         const std::string& mode = "system/fork",
                         const std::string& program = "qemu") {
    Json::Value alarm;
    alarm["event_classid"] = "vmescape_0001";
    alarm["process_info"][0]["process_name"] = name;
    alarm["process_info"][0]["process_cmdline"] = commandLine;
    alarm["forensic_info"]["monitor_process"] = program;
    alarm["forensic_info"]["escape_mode"] = mode;
    return alarm;
}

Json::Value FileAlarm(const std::string& path, const std::string& program = "qemu") {
    Json::Value alarm;
    alarm["event_classid"] = "vmescape_0002";
    alarm["file_info"][0]["file_path"] = path;
    alarm["forensic_info"]["monitor_process"] = program;
    return alarm;
}

Json::Value PortAlarm(const std::string& port, const std::string& program = "qemu") {
    Json::Value alarm;
    alarm["event_classid"] = "vmescape_0003";
    alarm["forensic_info"]["abnormal_port"] = port;
    alarm["forensic_info"]["monitor_process"] = program;
    return alarm;
}

/// Lists the program of "PROGRAM ARGUMENTS", and nothing for one called "no".
CommandEntry FirstWord(const std::string& name, const std::string& commandLine) {
    return name == "no" ? CommandEntry{"", "because"}
                        : CommandEntry{commandLine.substr(0, commandLine.find(' '))};
}

class Learned : public testing::Test {
protected:
    Learned() {
        Add(kCommands, R"({"virtcmd":"qemu","action":false,"cmdlist":["/bin/old"]},
                          {"virtcmd":"kvm","cmdlist":[]},{"virtcmd":"qemu","cmdlist":["x"]})");
        Add(kFiles, R"({"virtmonitor":"qemu","filelist":["/etc/old"]})",
            R"("action":false,"senstive_dirs":["/etc","/root"],)");
        Add(kPorts, R"({"virtmonitor":"qemu","portlist":["1"]})");
    }

    void Add(const std::string& feature, const std::string& rules, const std::string& more = "") {
        const std::string text = R"({"module_name":"vmescape_module","enabled":false,"content":{)" +
                                 more + R"("monitor_list":[)" + rules + "]}}";
        ASSERT_FALSE(HasErrors(Agent::PolicyChecker::Check(feature + ".json", text)));
        m_learned.Add(*PolicyShape::Find(feature), Parsed(text));
    }

    /// What is listed for a program.
    Texts List(const std::string& feature, const std::string& program = "qemu") const {
        const PolicyShape& shape = *PolicyShape::Find(feature);
        Texts texts;
        const Json::Value policy = m_learned.Make("h").m_policies.at(feature);
        for (const Json::Value& rule : policy["content"]["monitor_list"]) {
            if (rule[shape.Program().m_key].asString() == program) {
                for (const Json::Value& text : rule[shape.List().m_key]) {
                    texts.push_back(text.asString());
                }
            }
        }
        return texts;
    }

    LearnedPolicies m_learned{FirstWord};
};

TEST_F(Learned, BeginsWithPoliciesThatAllowNothing) {
    const LearnedPolicies::PolicyTexts texts = m_learned.AllowingNothing();
    ASSERT_EQ(texts.size(), 3U);
    EXPECT_EQ(Parsed(texts.at("qemu_cmd_detect_feature.json")),
              Parsed(R"({"module_name":"vmescape_module","enabled":true,"hash":"learn","content":{
                  "monitor_list":[{"virtcmd":"kvm","action":true,"cmdlist":[]},
                                  {"virtcmd":"qemu","action":true,"cmdlist":[]}]}})"));
    EXPECT_EQ(Parsed(texts.at("qemu_file_detect_feature.json")),
              Parsed(R"({"module_name":"vmescape_module","enabled":true,"hash":"learn","content":{
                  "action":true,"senstive_dirs":["/etc","/root"],
                  "monitor_list":[{"virtmonitor":"qemu","filelist":[]}]}})"));
    EXPECT_EQ(Parsed(texts.at("qemu_port_detect_feature.json")),
              Parsed(R"({"module_name":"vmescape_module","enabled":true,"hash":"learn","content":{
                  "monitor_list":[{"virtmonitor":"qemu","portlist":[]}]}})"));
    for (const auto& [file, text] : texts) {
        EXPECT_TRUE(Agent::PolicyChecker::Check(file, text).empty()) << file;
    }
    EXPECT_EQ(m_learned.Directories(), (Texts{"/etc", "/root"}));
}

TEST_F(Learned, BeginsWithOnePolicyThatForbidsNothing) {
    const LearnedPolicies::PolicyTexts texts = m_learned.ForbiddingNothing();
    ASSERT_EQ(texts.size(), 1U);
    EXPECT_EQ(Parsed(texts.at("qemu_cmd_detect_feature.json")),
              Parsed(R"({"module_name":"vmescape_module","enabled":true,"hash":"learn","content":{
                  "monitor_list":[{"virtcmd":"kvm","action":false,"cmdlist":[]},
                                  {"virtcmd":"qemu","action":false,"cmdlist":[]}]}})"));
}

TEST_F(Learned, ListsWhatWasForbiddenOfEachClass) {
    EXPECT_TRUE(m_learned.TakeForbidden(CommandAlarm("b", "/bin/b 1")));
    EXPECT_TRUE(m_learned.TakeForbidden(CommandAlarm("b", "/bin/b 2")));
    EXPECT_TRUE(m_learned.TakeForbidden(CommandAlarm("a", "/bin/a")));
    EXPECT_TRUE(m_learned.TakeForbidden(CommandAlarm("k", "/bin/k", "system/fork", "kvm")));
    EXPECT_TRUE(m_learned.TakeForbidden(FileAlarm("/etc/b")));
    EXPECT_TRUE(m_learned.TakeForbidden(FileAlarm("/etc/a b")));
    EXPECT_TRUE(m_learned.TakeForbidden(PortAlarm("10809")));
    EXPECT_TRUE(m_learned.TakeForbidden(PortAlarm("5901")));
    EXPECT_EQ(List(kCommands), (Texts{"/bin/a", "/bin/b"}));
    EXPECT_EQ(List(kCommands, "kvm"), (Texts{"/bin/k"}));
    EXPECT_EQ(List(kFiles), (Texts{"/etc/a b", "/etc/b"}));
    EXPECT_EQ(List(kPorts), (Texts{"5901", "10809"}));
    EXPECT_EQ(m_learned.Count(kCommands), 4U);
    EXPECT_EQ(m_learned.Count(kFiles), 2U);
    EXPECT_EQ(m_learned.Count("other"), 0U);
    EXPECT_TRUE(m_learned.Make("h").m_notAllowable.empty());
}

TEST_F(Learned, KeepsAnEmptyAllowListForWhoDidNothing) {
    const LearnedPolicies::Result result = m_learned.Make("the hash");
    ASSERT_EQ(result.m_policies.size(), 3U);
    for (const auto& [feature, policy] : result.m_policies) {
        Json::Value expected = Parsed(m_learned.AllowingNothing().at(feature + ".json"));
        expected["hash"] = "the hash";
        EXPECT_EQ(policy, expected);
    }
}

TEST_F(Learned, ListsNothingThatIsAnAlarmWhateverIsAllowed) {
    // In either order: two agents tell of it.
    m_learned.TakeForbidden(CommandAlarm("sh", "/bin/sh -c a"));
    m_learned.TakeInevitable(CommandAlarm("sh", "/bin/sh -c a", "shell"));
    m_learned.TakeInevitable(CommandAlarm("p", "/tmp/p x", "forbidden dir"));
    m_learned.TakeForbidden(CommandAlarm("p", "/tmp/p x"));
    m_learned.TakeForbidden(CommandAlarm("q", "/bin/q"));
    EXPECT_EQ(List(kCommands), Texts{"/bin/q"});
    const LearnedPolicies::Result result = m_learned.Make("h");
    ASSERT_EQ(result.m_notAllowable.size(), 2U);
    EXPECT_EQ(result.m_notAllowable[0].m_feature, kCommands);
    EXPECT_EQ(result.m_notAllowable[0].m_program, "qemu");
    EXPECT_EQ(result.m_notAllowable[0].m_text, "/bin/sh -c a");
    EXPECT_EQ(result.m_notAllowable[0].m_why, "\"shell\" is an alarm whatever is allowed");
    EXPECT_EQ(result.m_notAllowable[1].m_text, "/tmp/p x");
    EXPECT_EQ(result.m_notAllowable[1].m_why, "\"forbidden dir\" is an alarm whatever is allowed");
}

TEST_F(Learned, ListsAProgramThatOneOfItsCommandLinesIsAllowedFor) {
    m_learned.TakeForbidden(CommandAlarm("p", "/opt/p x"));
    m_learned.TakeInevitable(CommandAlarm("p", "/opt/p y", "shell"));
    EXPECT_EQ(List(kCommands), Texts{"/opt/p"});
    EXPECT_EQ(m_learned.Make("h").m_notAllowable.size(), 1U);
}

TEST_F(Learned, ListsNothingThatNoPolicyCanHold) {
    m_learned.TakeForbidden(CommandAlarm("no", "text"));
    m_learned.TakeForbidden(FileAlarm("/etc/\xef\xbf\xbd"));
    m_learned.TakeForbidden(FileAlarm("relative"));
    const LearnedPolicies::Result result = m_learned.Make("h");
    ASSERT_EQ(result.m_notAllowable.size(), 3U);
    EXPECT_EQ(result.m_notAllowable[0].m_why, "because");
    EXPECT_EQ(result.m_notAllowable[1].m_why, "it holds bytes that are no text in UTF-8");
    EXPECT_NE(result.m_notAllowable[2].m_why.find("is no absolute path"), std::string::npos);
    EXPECT_EQ(List(kFiles), Texts{});
}

TEST_F(Learned, HasRoomForAHundredTextsAndKeepsWhatWasSeenMostOften) {
    for (int i = 0; i < 101; ++i) {
        m_learned.TakeForbidden(PortAlarm(std::to_string(1000 + i)));
        if (i != 7) {
            m_learned.TakeForbidden(PortAlarm(std::to_string(1000 + i)));
        }
    }
    const Texts ports = List(kPorts);
    ASSERT_EQ(ports.size(), 100U);
    EXPECT_EQ(ports.front(), "1000");
    EXPECT_EQ(ports.back(), "1100");
    const LearnedPolicies::Result result = m_learned.Make("h");
    ASSERT_EQ(result.m_noRoom.size(), 1U);
    EXPECT_EQ(result.m_noRoom[0].m_text, "1007");
    EXPECT_EQ(result.m_noRoom[0].m_feature, kPorts);
    EXPECT_EQ(result.m_noRoom[0].m_program, "qemu");
}

TEST_F(Learned, KeepsNoMoreThanThereIsRoomFor) {
    for (std::size_t i = 0; i < LearnedPolicies::MAX_KEPT; ++i) {
        EXPECT_TRUE(m_learned.TakeForbidden(FileAlarm("/etc/" + std::to_string(i))));
    }
    EXPECT_EQ(m_learned.NotKept(), 0U);
    EXPECT_TRUE(m_learned.TakeForbidden(FileAlarm("/etc/0")));
    EXPECT_EQ(m_learned.NotKept(), 0U);
    EXPECT_TRUE(m_learned.TakeForbidden(FileAlarm("/etc/new")));
    EXPECT_TRUE(m_learned.TakeInevitable(CommandAlarm("a", "/bin/a", "shell")));
    EXPECT_EQ(m_learned.NotKept(), 2U);
    EXPECT_EQ(m_learned.Count(kFiles), LearnedPolicies::MAX_KEPT);
}

TEST_F(Learned, ReadsNoMoreRulesAndDirectoriesThanTheModule) {
    LearnedPolicies learned(FirstWord);
    std::string rules;
    std::string directories;
    for (int i = 0; i < 101; ++i) {
        const std::string number = std::to_string(i);
        rules += (i > 0 ? "," : "") + (R"({"virtmonitor":"q)" + number + R"(","filelist":[]})");
        directories += (i > 0 ? ",\"/" : "\"/") + number + '"';
    }
    learned.Add(*PolicyShape::Find(kFiles),
                Parsed(R"({"content":{"senstive_dirs":[)" + directories + R"(],"monitor_list":[)" +
                       rules + "]}}"));
    EXPECT_EQ(learned.Directories().size(), 100U);
    EXPECT_TRUE(learned.TakeForbidden(FileAlarm("/0/a", "q49")));
    EXPECT_FALSE(learned.TakeForbidden(FileAlarm("/0/a", "q50")));
    EXPECT_EQ(learned.Make("h").m_policies.at(kFiles)["content"]["monitor_list"].size(), 50U);
}

TEST_F(Learned, TakesNothingButAlarmsOfItsPolicies) {
    EXPECT_FALSE(m_learned.TakeForbidden(FileAlarm("/etc/a", "kvm")));
    EXPECT_FALSE(m_learned.TakeForbidden(Parsed("[]")));
    EXPECT_FALSE(m_learned.TakeForbidden(Parsed("{}")));
    EXPECT_FALSE(m_learned.TakeForbidden(Parsed("\"text\"")));
    Json::Value strange = PortAlarm("1");
    strange["event_classid"] = "vmescape_0004";
    EXPECT_FALSE(m_learned.TakeForbidden(strange));
    strange = FileAlarm("/etc/a");
    strange["file_info"] = "text";
    EXPECT_FALSE(m_learned.TakeForbidden(strange));
    LearnedPolicies ports(FirstWord);
    EXPECT_TRUE(ports.Empty());
    ports.Add(*PolicyShape::Find(kPorts),
              Parsed(m_learned.AllowingNothing().at("qemu_port_detect_feature.json")));
    EXPECT_FALSE(ports.Empty());
    EXPECT_FALSE(ports.TakeForbidden(FileAlarm("/etc/a")));
    EXPECT_TRUE(ports.TakeForbidden(PortAlarm("1")));
    EXPECT_TRUE(ports.ForbiddingNothing().empty());
}

TEST_F(Learned, IsWrittenOneTextALineAndPassesTheCheck) {
    m_learned.TakeForbidden(FileAlarm("/etc/b"));
    m_learned.TakeForbidden(FileAlarm("/etc/a\n: {\xe2\x80\xae"));
    m_learned.TakeForbidden(CommandAlarm("b", "/bin/b"));
    m_learned.TakeForbidden(PortAlarm("1"));
    const LearnedPolicies::Result result = m_learned.Make("h");
    for (const auto& [feature, policy] : result.m_policies) {
        const std::string text = LearnedPolicies::ToText(policy);
        EXPECT_EQ(Parsed(text), policy);
        EXPECT_TRUE(Agent::PolicyChecker::Check(feature + ".json", text).empty()) << text;
    }
    EXPECT_EQ(LearnedPolicies::ToText(result.m_policies.at(kFiles)),
              R"({
    "content": {
        "action": true,
        "monitor_list": [
            {
                "filelist": [
                    "/etc/a\n: {\u202e",
                    "/etc/b"
                ],
                "virtmonitor": "qemu"
            }
        ],
        "senstive_dirs": [
            "/etc",
            "/root"
        ]
    },
    "enabled": true,
    "hash": "h",
    "module_name": "vmescape_module"
}
)");
}

}  // namespace
