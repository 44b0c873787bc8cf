#include "PolicyChecker.h"

#include "sdk/JsonUtils.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <sys/stat.h>

namespace {

using Lines = std::vector<std::string>;

const std::string kFile = "qemu_cmd_detect_feature.json";

Json::Value Rule(const std::string& name) {
    Json::Value rule;
    rule["virtcmd"] = name;
    rule["action"] = true;
    rule["cmdlist"].append("/usr/bin/id");
    return rule;
}

class PolicyChecker : public testing::Test {
protected:
    PolicyChecker() {
        m_policy["module_name"] = "vmescape_module";
        m_policy["enabled"] = true;
        m_policy["hash"] = "1";
        m_policy["content"]["monitor_list"].append(Rule("qemu-kvm"));
    }

    Json::Value& Rules() { return m_policy["content"]["monitor_list"]; }

    static Lines CheckText(const std::string& text, const std::string& file = kFile) {
        Lines lines;
        for (const Agent::Problem& problem : Agent::PolicyChecker::Check(file, text)) {
            lines.push_back(Agent::ToText(problem).substr(file.length() + 2));
        }
        return lines;
    }

    Lines Check() const { return CheckText(SDK::JsonUtils::JsonToString(m_policy)); }

    Json::Value m_policy;
};

TEST_F(PolicyChecker, FindsNothingWrongWithAGoodPolicy) { EXPECT_EQ(Check(), Lines()); }

TEST_F(PolicyChecker, FindsNothingWrongWithTheReadyPolicies) {
    for (const char* feature : {"cmd", "file", "port"}) {
        const std::string file = "qemu_" + std::string(feature) + "_detect_feature.json";
        EXPECT_TRUE(Agent::PolicyChecker::CheckFile(SOURCE_FOLDER "/policies/" + file).empty())
            << file;
    }
}

TEST_F(PolicyChecker, KnowsTheFeatureByTheFileName) {
    EXPECT_EQ(Agent::PolicyChecker::FeatureOf("/a/b.c/qemu_cmd_detect_feature.json"),
              "qemu_cmd_detect_feature");
    EXPECT_EQ(Agent::PolicyChecker::FeatureOf("plain"), "plain");
    EXPECT_EQ(Agent::PolicyChecker::FeatureOf(".json"), ".json");
}

TEST_F(PolicyChecker, RefusesAFileThatIsNamedAfterNoFeature) {
    EXPECT_EQ(CheckText("{}", "other.json"),
              Lines{"expected the file name of a feature (qemu_cmd_detect_feature.json, "
                    "qemu_file_detect_feature.json or qemu_port_detect_feature.json)"});
}

TEST_F(PolicyChecker, RefusesWhatIsNotJsonWithItsPlace) {
    const Lines lines = CheckText("{\"content\": }");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_NE(lines[0].find("Line 1, Column 13"), std::string::npos) << lines[0];
}

TEST_F(PolicyChecker, RefusesAnEnvelopeOfAnotherModule) {
    m_policy["module_name"] = "VMESCAPE_MODULE";
    EXPECT_EQ(Check(),
              Lines{"/module_name: expected \"vmescape_module\", found \"VMESCAPE_MODULE\""});
    m_policy.removeMember("module_name");
    EXPECT_EQ(Check(), Lines{"/module_name: expected \"vmescape_module\", found nothing"});
}

TEST_F(PolicyChecker, RefusesWrongTypesInTheEnvelope) {
    m_policy["enabled"] = "false";
    m_policy["hash"] = 7;
    EXPECT_EQ(Check(), (Lines{"/enabled: expected a boolean, found a string",
                              "/hash: expected a string, found a number"}));
}

TEST_F(PolicyChecker, NeedsNeitherEnabledNorHash) {
    m_policy.removeMember("enabled");
    m_policy.removeMember("hash");
    EXPECT_EQ(Check(), Lines());
}

TEST_F(PolicyChecker, RefusesAMissingOrEmptyList) {
    m_policy["content"] = Json::objectValue;
    EXPECT_EQ(Check(), Lines{"/content/monitor_list: expected a list of at least one rule, found "
                             "nothing"});
    Rules() = Json::arrayValue;
    EXPECT_EQ(Check(), Lines{"/content/monitor_list: expected a list of at least one rule, found "
                             "an empty list"});
    m_policy["content"] = 3;
    EXPECT_EQ(Check(), Lines{"/content: expected an object, found a number"});
    m_policy.removeMember("content");
    EXPECT_EQ(Check(), Lines{"/content: expected an object, found nothing"});
}

TEST_F(PolicyChecker, PointsAtTheRuleThatIsWrong) {
    Rules().append(Rule("kvm"));
    Rules()[1]["virtcmd"] = 5;
    EXPECT_EQ(Check(), Lines{"/content/monitor_list/1/virtcmd: expected a non-empty string, found "
                             "a number"});
    Rules()[1]["virtcmd"] = "";
    EXPECT_EQ(Check(), Lines{"/content/monitor_list/1/virtcmd: expected a non-empty string, found "
                             "an empty string"});
    Rules()[1] = "kvm";
    EXPECT_EQ(Check(), Lines{"/content/monitor_list/1: expected an object, found a string"});
}

TEST_F(PolicyChecker, RefusesWrongTypesInARule) {
    Rules()[0]["action"] = "allow";
    Rules()[0]["cmdlist"] = "id";
    EXPECT_EQ(Check(), (Lines{"/content/monitor_list/0/action: expected a boolean (true: allow "
                              "list, false: deny list), found a string",
                              "/content/monitor_list/0/cmdlist: expected a list of strings, found "
                              "a string"}));
    Rules()[0] = Rule("kvm");
    Rules()[0]["cmdlist"][1] = 9;
    EXPECT_EQ(Check(), Lines{"/content/monitor_list/0/cmdlist/1: expected a non-empty string, "
                             "found a number"});
}

TEST_F(PolicyChecker, RefusesNamesThatNoProcessCanHave) {
    Rules()[1]["virtcmd"] = std::string("qemu\0kvm", 8);
    Rules()[1]["cmdlist"][0] = std::string("id\0", 3);
    EXPECT_EQ(Check(), (Lines{"/content/monitor_list/1/virtcmd: expected a string without NUL "
                              "characters (\\u0000)",
                              "/content/monitor_list/1/cmdlist/0: expected a string without NUL "
                              "characters (\\u0000)"}));
}

TEST_F(PolicyChecker, WarnsOfACommandWithoutName) {
    Rules()[0]["cmdlist"].append("");
    EXPECT_EQ(Check(), Lines{"/content/monitor_list/0/cmdlist/1: warning: an empty string names "
                             "no command"});
}

TEST_F(PolicyChecker, TakesAnEmptyCommandListAndNoAction) {
    Rules()[0]["cmdlist"] = Json::arrayValue;
    Rules()[0].removeMember("action");
    EXPECT_EQ(Check(), Lines());
}

TEST_F(PolicyChecker, WarnsOfUnknownKeysEverywhere) {
    m_policy["a"] = 1;
    m_policy["content"]["b/c"] = 1;
    Rules()[0]["cmd_list"] = 1;
    EXPECT_EQ(Check(), (Lines{"/a: warning: unknown key", "/content/b~1c: warning: unknown key",
                              "/content/monitor_list/0/cmd_list: warning: unknown key"}));
}

TEST_F(PolicyChecker, WarnsOfTheFiftyFirstRule) {
    for (int i = 1; i < 50; ++i) {
        Rules().append(Rule("vm" + std::to_string(i)));
    }
    EXPECT_EQ(Check(), Lines());
    Rules().append(Rule("one-more"));
    EXPECT_EQ(Check(), Lines{"/content/monitor_list: warning: expected at most 50 rules, found 51; "
                             "the rest is ignored"});
}

TEST_F(PolicyChecker, WarnsOfTheHundredAndFirstCommand) {
    for (int i = 1; i < 100; ++i) {
        Rules()[0]["cmdlist"].append("c" + std::to_string(i));
    }
    EXPECT_EQ(Check(), Lines());
    Rules()[0]["cmdlist"].append("one-more");
    EXPECT_EQ(Check(), Lines{"/content/monitor_list/0/cmdlist: warning: expected at most 100 "
                             "commands, found 101; the rest is ignored"});
}

TEST_F(PolicyChecker, WarnsOfASecondRuleForAName) {
    Rules().append(Rule("qemu-kvm"));
    EXPECT_EQ(Check(), Lines{"/content/monitor_list/1/virtcmd: warning: \"qemu-kvm\" has a rule "
                             "already; this one is ignored"});
}

TEST_F(PolicyChecker, WarnsOfANameThatIsAPath) {
    Rules()[0] = Rule("/usr/bin/qemu-kvm");
    EXPECT_EQ(Check(), Lines{"/content/monitor_list/0/virtcmd: warning: \"/usr/bin/qemu-kvm\" is a "
                             "path; processes are known by name, it will never match"});
}

TEST_F(PolicyChecker, ReadsTheFileThatItChecks) {
    const TestSupport::TemporaryFolder folder;
    const auto missing = Agent::PolicyChecker::CheckFile(folder / kFile);
    ASSERT_EQ(missing.size(), 1U);
    EXPECT_EQ(missing[0].m_text, "cannot be read: No such file or directory");
    folder.Write(kFile, SDK::JsonUtils::JsonToString(m_policy));
    EXPECT_TRUE(Agent::PolicyChecker::CheckFile(folder / kFile).empty());
}

/// Policies of the file and of the port detection.
class PolicyCheckerOfOthers : public PolicyChecker {
protected:
    static Lines CheckFilePolicy(const std::string& content) {
        return CheckText(R"({"module_name":"vmescape_module","content":)" + content + "}",
                         "qemu_file_detect_feature.json");
    }
    static Lines CheckPortPolicy(const std::string& content) {
        return CheckText(R"({"module_name":"vmescape_module","content":)" + content + "}",
                         "qemu_port_detect_feature.json");
    }
};

TEST_F(PolicyCheckerOfOthers, FindsNothingWrongWithGoodOnes) {
    EXPECT_EQ(CheckFilePolicy(R"({"action":false,"senstive_dirs":["/etc"],"monitor_list":[)"
                              R"({"virtmonitor":"qemu-kvm","filelist":["/etc/shadow"]}]})"),
              Lines());
    EXPECT_EQ(
        CheckPortPolicy(R"({"monitor_list":[{"virtmonitor":"qemu-kvm","portlist":["5700"]}]})"),
        Lines());
}

TEST_F(PolicyCheckerOfOthers, NeedsDirectoriesAndRules) {
    EXPECT_EQ(CheckFilePolicy("{}"),
              (Lines{"/content/senstive_dirs: expected a list of strings, found nothing",
                     "/content/monitor_list: expected a list of at least one rule, found "
                     "nothing"}));
    EXPECT_EQ(CheckPortPolicy("{}"),
              Lines{"/content/monitor_list: expected a list of at least one rule, found nothing"});
}

TEST_F(PolicyCheckerOfOthers, WarnsOfPathsThatAreNotAbsolute) {
    EXPECT_EQ(CheckFilePolicy(R"({"senstive_dirs":["etc"],"monitor_list":[)"
                              R"({"virtmonitor":"qemu-kvm","filelist":["shadow"]}]})"),
              (Lines{"/content/senstive_dirs/0: warning: \"etc\" is no absolute path, it is not "
                     "watched",
                     "/content/monitor_list/0/filelist/0: warning: \"shadow\" is no absolute path, "
                     "it never matches"}));
}

TEST_F(PolicyCheckerOfOthers, WarnsOfPortsThatNeverMatch) {
    for (const char* port : {"", "0", "022", "22 ", "ssh", "65536", "-1", "22-25"}) {
        EXPECT_EQ(CheckPortPolicy(R"({"monitor_list":[{"virtmonitor":"qemu-kvm","portlist":[")" +
                                  std::string(port) + R"("]}]})"),
                  Lines{"/content/monitor_list/0/portlist/0: warning: \"" + std::string(port) +
                        "\" is no plain number from 1 to 65535, it never matches"});
    }
}

TEST_F(PolicyCheckerOfOthers, RefusesEntriesOfOtherTypes) {
    EXPECT_EQ(CheckPortPolicy(R"({"monitor_list":[{"virtmonitor":"qemu-kvm","portlist":[5700]}]})"),
              Lines{"/content/monitor_list/0/portlist/0: expected a non-empty string, found a "
                    "number"});
    EXPECT_EQ(CheckFilePolicy(R"({"action":1,"senstive_dirs":[],"monitor_list":[)"
                              R"({"virtmonitor":"qemu-kvm","filelist":[]}]})"),
              Lines{"/content/action: expected a boolean (true: allow list, false: deny list), "
                    "found a number"});
}

TEST_F(PolicyCheckerOfOthers, WarnsOfKeysThatBelongToAnotherFeature) {
    EXPECT_EQ(CheckPortPolicy(R"({"action":true,"monitor_list":[)"
                              R"({"virtmonitor":"qemu-kvm","portlist":[],"action":true}]})"),
              (Lines{"/content/action: warning: unknown key",
                     "/content/monitor_list/0/action: warning: unknown key"}));
}

TEST(PolicyCheckerOfFiles, WarnsOfAFileThatTheAgentWouldNotTakeFromThere) {
    const TestSupport::TemporaryFolder folder;
    const std::string file =
        folder.Write("qemu_cmd_detect_feature.json",
                     R"({"module_name":"vmescape_module","content":{"monitor_list":[)"
                     R"({"virtcmd":"qemu-kvm","action":true,"cmdlist":["/usr/bin/id"]}]}})");
    EXPECT_TRUE(Agent::PolicyChecker::CheckFile(file).empty());
    ::chmod(file.c_str(), 0666);
    const std::vector<Agent::Problem> problems = Agent::PolicyChecker::CheckFile(file);
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_TRUE(problems[0].m_warning);
    EXPECT_EQ(problems[0].m_text.rfind("would be refused where it is: ", 0), 0U);
}

}  // namespace
