#include "EffectivePolicy.h"

#include "sdk/JsonUtils.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <json/value.h>

namespace {

using Texts = std::vector<std::string>;

Agent::EffectivePolicy Read(const std::string& feature, const std::string& text) {
    return {*Agent::PolicyShape::Find(feature), text};
}

Json::Value Rule(const std::string& program, int commands) {
    Json::Value rule;
    rule["virtcmd"] = program;
    rule["cmdlist"] = Json::arrayValue;
    for (int i = 1; i <= commands; ++i) {
        rule["cmdlist"].append("c" + std::to_string(i));
    }
    return rule;
}

Agent::EffectivePolicy ReadRules(const std::vector<Json::Value>& rules) {
    Json::Value policy;
    for (const Json::Value& rule : rules) {
        policy["content"]["monitor_list"].append(rule);
    }
    return Read("qemu_cmd_detect_feature", SDK::JsonUtils::JsonToString(policy));
}

TEST(EffectivePolicy, OfCommandsReadsEachRulesOwnAction) {
    const auto policy = Read(
        "qemu_cmd_detect_feature",
        R"({"enabled":true,"hash":"h","content":{"monitor_list":[)"
        R"({"virtcmd":"a","action":false,"cmdlist":["x","y"]},{"virtcmd":"b","cmdlist":[]}]}})");
    EXPECT_TRUE(policy.Enabled());
    EXPECT_EQ(policy.Hash(), "h");
    EXPECT_EQ(policy.Shape().m_detection, std::string("commands"));
    ASSERT_EQ(policy.Rules().size(), 2U);
    EXPECT_EQ(policy.Rules()[0].m_program, "a");
    EXPECT_FALSE(policy.Rules()[0].m_allowList);
    EXPECT_EQ(policy.Rules()[0].m_texts, (Texts{"x", "y"}));
    EXPECT_EQ(policy.Rules()[1].m_program, "b");
    EXPECT_TRUE(policy.Rules()[1].m_allowList);
    EXPECT_EQ(policy.Rules()[1].m_texts, Texts());
    EXPECT_TRUE(policy.Watched().empty());
}

TEST(EffectivePolicy, OfFilesHasOneActionForAllRulesAndDirectories) {
    const auto policy =
        Read("qemu_file_detect_feature",
             R"({"content":{"action":false,"senstive_dirs":["/etc","/root"],"monitor_list":[)"
             R"({"virtmonitor":"a","action":true,"filelist":["/etc/x"]}]}})");
    EXPECT_EQ(policy.Watched(), (Texts{"/etc", "/root"}));
    EXPECT_FALSE(policy.Rules()[0].m_allowList);
    EXPECT_EQ(policy.Rules()[0].m_texts, Texts{"/etc/x"});
}

TEST(EffectivePolicy, OfPortsIsAllowListsWhateverItSays) {
    const auto policy = Read("qemu_port_detect_feature",
                             R"({"content":{"action":false,"monitor_list":[)"
                             R"({"virtmonitor":"a","action":false,"portlist":["1"]}]}})");
    EXPECT_TRUE(policy.Rules()[0].m_allowList);
    EXPECT_EQ(policy.Rules()[0].m_texts, Texts{"1"});
}

TEST(EffectivePolicy, KnowsThatItIsSwitchedOff) {
    EXPECT_FALSE(Read("qemu_cmd_detect_feature", R"({"enabled":false})").Enabled());
    EXPECT_TRUE(Read("qemu_cmd_detect_feature", "{}").Enabled());
}

TEST(EffectivePolicy, EndsWithTheFiftiethRule) {
    std::vector<Json::Value> rules;
    for (int i = 1; i <= 52; ++i) {
        rules.push_back(Rule("vm" + std::to_string(i), 0));
    }
    const auto policy = ReadRules(rules);
    ASSERT_EQ(policy.Rules().size(), 50U);
    EXPECT_EQ(policy.Rules().back().m_program, "vm50");
    EXPECT_EQ(policy.LeftOut().m_rules, 2U);
}

TEST(EffectivePolicy, EndsEachListWithItsHundredthText) {
    const auto policy = ReadRules({Rule("a", 100), Rule("b", 103)});
    EXPECT_EQ(policy.Rules()[0].m_texts.size(), 100U);
    EXPECT_EQ(policy.Rules()[1].m_texts.size(), 100U);
    EXPECT_EQ(policy.Rules()[1].m_texts.back(), "c100");
    EXPECT_EQ(policy.LeftOut().m_texts, 3U);
    EXPECT_EQ(policy.LeftOut().m_rules, 0U);
}

TEST(EffectivePolicy, KeepsTheFirstRuleOfAProgramAndCountsTheOthersForTheLimit) {
    std::vector<Json::Value> rules = {Rule("a", 1), Rule("a", 2)};
    for (int i = 1; i <= 49; ++i) {
        rules.push_back(Rule("vm" + std::to_string(i), 0));
    }
    const auto policy = ReadRules(rules);
    EXPECT_EQ(policy.Rules()[0].m_texts.size(), 1U);
    EXPECT_EQ(policy.Rules().size(), 49U);
    EXPECT_EQ(policy.Rules().back().m_program, "vm48");
    EXPECT_EQ(policy.LeftOut().m_rules, 2U);
    EXPECT_EQ(policy.LeftOut().m_texts, 0U);
}

TEST(EffectivePolicy, OfTheReadyPoliciesIsAllOfThem) {
    for (const Agent::PolicyShape& shape : Agent::PolicyShape::All()) {
        const std::string file = SOURCE_FOLDER "/policies/" + std::string(shape.m_feature);
        const auto policy = Read(shape.m_feature, TestSupport::ReadText(file + ".json"));
        EXPECT_EQ(policy.Rules().size(), 35U) << shape.m_feature;
        EXPECT_EQ(policy.LeftOut().m_rules + policy.LeftOut().m_texts, 0U) << shape.m_feature;
    }
}

}  // namespace
