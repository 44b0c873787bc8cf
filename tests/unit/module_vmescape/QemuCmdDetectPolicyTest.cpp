#include "QemuCmdDetectPolicy.h"

#include "QemuCmdDetectTaskPolicy.h"
#include "support/BrokenChannel.h"
#include "support/CapturedLog.h"
#include "support/ScriptedTasks.h"

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Engine::QemuCmdDetectPolicy;
using Engine::QemuCmdDetectTaskPolicy;
using TestSupport::CapturedLog;
using TestSupport::CommandPolicy;
using Strings = std::vector<std::string>;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

std::string Rule(const std::string& virtCmd, const std::string& more = R"("cmdlist":[])") {
    return R"({"virtcmd":")" + virtCmd + R"(",)" + more + "}";
}

Strings ManyRules(int count) {
    Strings rules;
    for (int i = 0; i < count; ++i) {
        rules.push_back(Rule("qemu-" + std::to_string(i)));
    }
    return rules;
}

std::string CommandList(int count) {
    std::string list;
    for (int i = 0; i < count; ++i) {
        list += (i == 0 ? "\"" : ",\"") + std::to_string(i) + '"';
    }
    return R"("action":false,"cmdlist":[)" + list + "]";
}

class QemuCmdDetectPolicyTest : public testing::Test {
protected:
    bool Parse(const Strings& rules) { return m_policy.Parse(CommandPolicy(rules)); }
    bool Matches(const std::string& cmdName, const std::string& cmdPath = "") {
        return m_policy.MatchMonitorRule("qemu", "ignored", cmdName, cmdPath);
    }

    CapturedLog m_log;
    QemuCmdDetectPolicy m_policy{"qemu_cmd_detect_feature"};
};

TEST_F(QemuCmdDetectPolicyTest, ATextThatIsNotJsonIsRefusedAndTheOldRulesStay) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    for (const char* text : {"", "no json", "{", "{} {}"}) {
        m_log.Clear();
        EXPECT_FALSE(m_policy.Parse(text)) << text;
        EXPECT_EQ(m_log.Texts(kError), Strings{"Parse policy content failed"}) << text;
        EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
    }
}

TEST_F(QemuCmdDetectPolicyTest, ATextWithoutContentIsRefusedAndTheOldRulesStay) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    for (const char* text : {"{}", "[]", "3", R"({"content":[]})", R"({"content":"x"})"}) {
        m_log.Clear();
        EXPECT_FALSE(m_policy.Parse(text)) << text;
        EXPECT_EQ(m_log.Texts(kError), Strings{"Parse QemuCmdDetect policy content failed"})
            << text;
        EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
    }
}

TEST_F(QemuCmdDetectPolicyTest, ATextWithoutMonitorListIsRefusedAndTheOldRulesStay) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    for (const char* text : {R"({"content":{}})", R"({"content":{"monitor_list":{}}})"}) {
        m_log.Clear();
        EXPECT_FALSE(m_policy.Parse(text)) << text;
        EXPECT_EQ(m_log.Texts(kError),
                  Strings{"Parse QemuCmdDetect monitor list in policy content failed"});
        EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
    }
}

TEST_F(QemuCmdDetectPolicyTest, AnEmptyMonitorListClearsTheOldRulesAndIsRefusedWithoutALine) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    m_log.Clear();
    EXPECT_FALSE(Parse({}));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qemu"));
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(QemuCmdDetectPolicyTest, TheOldRulesAreGoneWhateverTheNewOnesAreWorth) {
    ASSERT_TRUE(Parse({Rule("old")}));
    ASSERT_TRUE(Parse({Rule("new")}));
    EXPECT_FALSE(m_policy.IsMonitorProcess("old"));
    EXPECT_FALSE(Parse({Rule("")}));
    EXPECT_FALSE(m_policy.IsMonitorProcess("new"));
}

TEST_F(QemuCmdDetectPolicyTest, OnlyAPolicyWithARuleHasATaskPolicy) {
    EXPECT_FALSE(Parse({}));
    EXPECT_FALSE(Parse({"{}"}));
    EXPECT_EQ(m_policy.Find("qemu_cmd_detect_task"), nullptr);
    EXPECT_TRUE(Parse({Rule("qemu")}));
    EXPECT_NE(m_policy.Find("qemu_cmd_detect_task"), nullptr);
}

TEST_F(QemuCmdDetectPolicyTest, FiftyRulesAreAllStored) {
    EXPECT_TRUE(Parse(ManyRules(50)));
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu-49"));
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuCmdDetectPolicyTest, FiftyFirstRuleIsIgnoredAndLoggedOnce) {
    EXPECT_TRUE(Parse(ManyRules(52)));
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu-49"));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qemu-50"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The monitoring list(ArrayIndex=50) exceeds the specification(50) during "
                      "policy parsing"});
}

TEST_F(QemuCmdDetectPolicyTest, WrongAndRepeatedRulesCountAmongTheFifty) {
    Strings rules(50, Rule("qemu"));
    rules[0] = "{}";
    rules.push_back(Rule("late"));
    EXPECT_TRUE(Parse(rules));
    EXPECT_FALSE(m_policy.IsMonitorProcess("late"));
    EXPECT_EQ(m_log.Texts(kError),
              (Strings{"Parse monitor cmdlist(ArrayIndex=0) in policy content failed",
                       "The monitoring list(ArrayIndex=50) exceeds the specification(50) during "
                       "policy parsing"}));
}

TEST_F(QemuCmdDetectPolicyTest, RepeatedCommandsCountAmongTheHundred) {
    std::string list = R"("action":false,"cmdlist":[)";
    for (int i = 0; i < 100; ++i) {
        list += R"("same",)";
    }
    ASSERT_TRUE(Parse({Rule("qemu", list + R"("late"])")}));
    EXPECT_TRUE(Matches("same"));
    EXPECT_FALSE(Matches("late"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The cmd list(ArrayIndex=100) exceeds the specification(100) during policy "
                      "parsing."});
    EXPECT_TRUE(Parse({Rule("qemu", list + "[]]")})) << "what comes after them is not looked at";
}

TEST_F(QemuCmdDetectPolicyTest, AHundredCommandsAreAllStored) {
    ASSERT_TRUE(Parse({Rule("qemu", CommandList(100))}));
    EXPECT_TRUE(Matches("99"));
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuCmdDetectPolicyTest, TheHundredAndFirstCommandIsIgnoredAndLogged) {
    ASSERT_TRUE(Parse({Rule("qemu", CommandList(101))}));
    EXPECT_TRUE(Matches("99"));
    EXPECT_FALSE(Matches("100"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The cmd list(ArrayIndex=100) exceeds the specification(100) during policy "
                      "parsing."});
}

TEST_F(QemuCmdDetectPolicyTest, AWrongRuleIsSkippedAndLoggedWithItsPlace) {
    EXPECT_TRUE(Parse({R"({"cmdlist":[]})", Rule("qemu")}));
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"Parse monitor cmdlist(ArrayIndex=0) in policy content failed"});
}

TEST_F(QemuCmdDetectPolicyTest, AWrongRuleAfterAGoodOneDoesNotUndoIt) {
    EXPECT_TRUE(Parse({Rule("qemu"), "{}"}));
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"Parse monitor cmdlist(ArrayIndex=1) in policy content failed"});
    EXPECT_NE(m_policy.Find("qemu_cmd_detect_task"), nullptr);
}

TEST_F(QemuCmdDetectPolicyTest, OnlyWrongRulesRefuseThePolicy) {
    EXPECT_FALSE(Parse({R"({"virtcmd":"","cmdlist":[]})", "3", "null", R"({"virtcmd":5})"}));
    EXPECT_EQ(m_log.Texts(kError),
              (Strings{"Parse monitor cmdlist(ArrayIndex=0) in policy content failed",
                       "Parse monitor cmdlist(ArrayIndex=1) in policy content failed",
                       "Parse monitor cmdlist(ArrayIndex=2) in policy content failed",
                       "Parse monitor cmdlist(ArrayIndex=3) in policy content failed"}));
}

TEST_F(QemuCmdDetectPolicyTest, ARuleWithoutCommandListIsRefusedWithItsOddLine) {
    for (const char* rule : {R"({"virtcmd":"qemu"})", R"({"virtcmd":"qemu","cmdlist":"sh"})",
                             R"({"virtcmd":"qemu","cmdlist":{}})"}) {
        m_log.Clear();
        EXPECT_FALSE(m_policy.ParseMonitorRule(rule));
        EXPECT_EQ(m_log.Texts(kError), Strings{"Parse cmd list  in monitor rule failed"});
    }
}

TEST_F(QemuCmdDetectPolicyTest, ARuleThatIsNotJsonIsRefused) {
    EXPECT_FALSE(m_policy.ParseMonitorRule("{"));
    EXPECT_EQ(m_log.Texts(kError), Strings{"Parse monitor rule in policy content failed"});
}

TEST_F(QemuCmdDetectPolicyTest, ARuleWithoutProgramIsRefusedWithoutALine) {
    for (const char* rule : {R"({"virtcmd":"","cmdlist":[]})", "{}", "3", R"({"cmdlist":"sh"})"}) {
        EXPECT_FALSE(m_policy.ParseMonitorRule(rule)) << rule;
    }
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(QemuCmdDetectPolicyTest, ACommandThatIsAListRejectsItsRule) {
    EXPECT_TRUE(Parse(
        {Rule("bad", R"("cmdlist":[["sh"]])"), Rule("worse", R"("cmdlist":[{}])"), Rule("qemu")}));
    EXPECT_FALSE(m_policy.IsMonitorProcess("bad"));
    EXPECT_FALSE(m_policy.IsMonitorProcess("worse"));
}

TEST_F(QemuCmdDetectPolicyTest, ANumberInTheCommandListCountsAsItsText) {
    ASSERT_TRUE(Parse({Rule("qemu", R"("action":false,"cmdlist":[7])")}));
    EXPECT_TRUE(Matches("7"));
}

TEST_F(QemuCmdDetectPolicyTest, NullAndTrueInTheCommandListCountAsTheirTexts) {
    ASSERT_TRUE(Parse({Rule("qemu", R"("action":false,"cmdlist":[null,true])")}));
    EXPECT_TRUE(Matches("true", "/x"));
    EXPECT_TRUE(Matches("", ""));
    EXPECT_FALSE(Matches("x", "/x"));
}

TEST_F(QemuCmdDetectPolicyTest, TheFirstRuleOfAProgramWins) {
    ASSERT_TRUE(Parse({Rule("qemu", R"("action":false,"cmdlist":["first"])"),
                       Rule("qemu", R"("action":false,"cmdlist":["second"])")}));
    EXPECT_TRUE(Matches("first"));
    EXPECT_FALSE(Matches("second"));
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuCmdDetectPolicyTest, ADroppedRuleIsLoggedWithItsOwnAction) {
    EXPECT_TRUE(Parse({Rule("qemu", R"("action":false,"cmdlist":[])"), Rule("qemu")}));
    EXPECT_EQ(m_log.Texts(kDebug), (Strings{"Insert monitor rule(virtcmd:qemu,action:0)",
                                            "Insert monitor rule(virtcmd:qemu,action:1)"}));
}

TEST_F(QemuCmdDetectPolicyTest, EachStoredRuleIsLogged) {
    ASSERT_TRUE(Parse({Rule("allow"), Rule("deny", R"("action":false,"cmdlist":[])")}));
    EXPECT_EQ(m_log.Texts(kDebug), (Strings{"Insert monitor rule(virtcmd:allow,action:1)",
                                            "Insert monitor rule(virtcmd:deny,action:0)"}));
}

TEST_F(QemuCmdDetectPolicyTest, ARuleWithoutActionIsAnAllowList) {
    ASSERT_TRUE(Parse({Rule("qemu", R"("cmdlist":["/usr/bin/ok"])")}));
    EXPECT_FALSE(Matches("ok run", "/usr/bin/ok"));
    EXPECT_TRUE(Matches("other", "/usr/bin/other"));
}

TEST_F(QemuCmdDetectPolicyTest, AnActionOfAnotherTypeIsTheDefault) {
    ASSERT_TRUE(Parse({Rule("qemu", R"("action":"false","cmdlist":[])")}));
    EXPECT_TRUE(Matches("anything"));
}

TEST_F(QemuCmdDetectPolicyTest, AnEmptyAllowListMakesEveryCommandSensitive) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    EXPECT_TRUE(Matches("anything", "/usr/bin/anything"));
    EXPECT_TRUE(Matches("", ""));
}

TEST_F(QemuCmdDetectPolicyTest, AnEmptyDenyListMakesNoCommandSensitive) {
    ASSERT_TRUE(Parse({Rule("qemu", R"("action":false,"cmdlist":[])")}));
    EXPECT_FALSE(Matches("anything", "/usr/bin/anything"));
}

TEST_F(QemuCmdDetectPolicyTest, APathEntryMatchesTheExecutablePath) {
    ASSERT_TRUE(Parse({Rule("qemu", R"("action":false,"cmdlist":["/usr/bin/wget"])")}));
    EXPECT_TRUE(Matches("wget http://x", "/usr/bin/wget"));
    EXPECT_FALSE(Matches("wget http://x", "/bin/wget"));
    EXPECT_FALSE(Matches("wget", ""));
}

TEST_F(QemuCmdDetectPolicyTest, ANameEntryMatchesTheWholeLineOrTheLastComponent) {
    ASSERT_TRUE(Parse({Rule("qemu", R"("action":false,"cmdlist":["wget"])")}));
    EXPECT_TRUE(Matches("wget", ""));
    EXPECT_TRUE(Matches("wget http://x", "/usr/bin/wget"));
    EXPECT_FALSE(Matches("wget http://x", "/usr/bin/wget2"));
}

TEST_F(QemuCmdDetectPolicyTest, AProgramWithoutRuleHasNoSensitiveCommand) {
    ASSERT_TRUE(Parse({Rule("other")}));
    EXPECT_FALSE(Matches("anything"));
}

TEST_F(QemuCmdDetectPolicyTest, ProgramsAreComparedExactly) {
    ASSERT_TRUE(Parse({Rule("/usr/bin/qemu-kvm"), Rule("qemu")}));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qemu-kvm"));
    EXPECT_FALSE(m_policy.IsMonitorProcess("QEMU"));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qemu "));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qem"));
    EXPECT_TRUE(m_policy.IsMonitorProcess("/usr/bin/qemu-kvm"));
}

TEST_F(QemuCmdDetectPolicyTest, NulAndInvalidUtf8InNamesAreKeptOrReplacedButNeverCrash) {
    ASSERT_TRUE(Parse({Rule(R"(nul\u0000behind)"), Rule("bad\xff\xfe"
                                                        "bytes")}));
    EXPECT_TRUE(m_policy.IsMonitorProcess(std::string("nul\0behind", 10)));
    EXPECT_FALSE(m_policy.IsMonitorProcess("nul"));
}

TEST_F(QemuCmdDetectPolicyTest, ATextNestedTenThousandDeepIsRefused) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    const std::string deep = std::string(10000, '[') + std::string(10000, ']');
    EXPECT_FALSE(m_policy.Parse(deep));
    EXPECT_FALSE(m_policy.Parse(R"({"content":)" + deep + "}"));
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
    EXPECT_EQ(m_log.Count(kError, "Parse policy content failed"), 2U);
}

TEST_F(QemuCmdDetectPolicyTest, ATextOfAHundredMegabytesIsReadOrRefusedButNeverCrashes) {
    const std::string name(100UL * 1024 * 1024, 'a');
    EXPECT_TRUE(Parse({Rule(name)}));
    EXPECT_TRUE(m_policy.IsMonitorProcess(name));
    EXPECT_FALSE(m_policy.Parse(name));
}

TEST_F(QemuCmdDetectPolicyTest, ATaskPolicyStandsBelowIt) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    auto* child = m_policy.Find("qemu_cmd_detect_task");
    ASSERT_NE(child, nullptr);
    EXPECT_NE(dynamic_cast<QemuCmdDetectTaskPolicy*>(child), nullptr);
}

TEST_F(QemuCmdDetectPolicyTest, ItsRunConditionNeverDecidesAboutTheFeature) {
    EXPECT_TRUE(m_policy.Parse(
        R"({"content":{"monitor_list":[{"virtcmd":"q","cmdlist":[]}],"qemu_cmd_detect_task":"{\"task_condition\":\"bad\"}"}})"));
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuCmdDetectPolicyTest, AConditionThatIsNoTextCountsAsNone) {
    for (const char* condition : {"{}", "[]", "7", "null"}) {
        QemuCmdDetectPolicy policy("qemu_cmd_detect_feature");
        EXPECT_TRUE(policy.Parse(R"({"content":{"monitor_list":[{"virtcmd":"q","cmdlist":[]}],)"
                                 R"("qemu_cmd_detect_task":)" +
                                 std::string(condition) + "}}"));
        EXPECT_NE(policy.Find("qemu_cmd_detect_task"), nullptr) << condition;
    }
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST(QemuCmdDetectPolicyLog, ThatCannotBeWrittenRefusesWhatItWasAbout) {
    QemuCmdDetectPolicy policy("qemu_cmd_detect_feature");
    {
        const CapturedLog log;
        Poco::Logger::setChannel("", new TestSupport::BrokenChannel);
        EXPECT_FALSE(policy.Parse("no json"));
        EXPECT_FALSE(policy.ParseMonitorRule("{"));
        EXPECT_FALSE(policy.Parse(CommandPolicy({Rule("")})));
        EXPECT_FALSE(policy.Parse(CommandPolicy({Rule("qemu")}))) << "the debug line throws too";
    }
    EXPECT_TRUE(policy.Parse(CommandPolicy({Rule("qemu")})));
}

TEST(QemuCmdDetectTaskPolicy, IgnoresTheConditionOfATextThatParses) {
    QemuCmdDetectTaskPolicy policy("qemu_cmd_detect_task");
    EXPECT_FALSE(policy.Parse(R"({"task_condition":"{}"})"));
    EXPECT_EQ(policy.GetCondition(), "");
}

TEST(QemuCmdDetectTaskPolicy, TakesAnEmptyConditionFromATextThatDoesNotParse) {
    QemuCmdDetectTaskPolicy policy("qemu_cmd_detect_task");
    EXPECT_TRUE(policy.Parse(""));
    EXPECT_TRUE(policy.Parse("no json"));
}

/// Shows what the framework's policies keep to themselves.
template <typename PolicyT>
class Open : public PolicyT {
public:
    using PolicyT::PolicyT;
    int Attribute() const { return this->m_attribute; }
};

TEST(CommandPolicies, CarryTheAttributeThatTheAgentExpects) {
    EXPECT_EQ(Open<QemuCmdDetectPolicy>("x").Attribute(), 180);
    EXPECT_EQ(Open<QemuCmdDetectTaskPolicy>("x").Attribute(), 180);
}

}  // namespace
