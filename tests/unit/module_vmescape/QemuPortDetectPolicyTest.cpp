#include "QemuPortDetectPolicy.h"

#include "QemuPortDetectTaskPolicy.h"
#include "support/BrokenChannel.h"
#include "support/CapturedLog.h"
#include "support/ScriptedTasks.h"
#include "support/VirtualSlot.h"

#include <Poco/Channel.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Engine::QemuPortDetectPolicy;
using Engine::QemuPortDetectTaskPolicy;
using TestSupport::CapturedLog;
using TestSupport::CommandPolicy;
using Strings = std::vector<std::string>;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

std::string Rule(const std::string& program, const std::string& more = R"("portlist":[])") {
    return R"({"virtmonitor":")" + program + R"(",)" + more + "}";
}

std::string Ports(int count) {
    std::string list;
    for (int i = 0; i < count; ++i) {
        list += (i == 0 ? "\"" : ",\"") + std::to_string(i) + '"';
    }
    return R"("portlist":[)" + list + "]";
}

Strings ManyRules(int count) {
    Strings rules;
    for (int i = 0; i < count; ++i) {
        rules.push_back(Rule("qemu-" + std::to_string(i)));
    }
    return rules;
}

class QemuPortDetectPolicyTest : public testing::Test {
protected:
    bool Parse(const Strings& rules) { return m_policy.Parse(CommandPolicy(rules)); }
    bool Forbids(const std::string& port, const std::string& program = "qemu") {
        std::string abnormal = "untouched";
        const int result = m_policy.MatchMonitorRule(program, port, "6", abnormal);
        EXPECT_EQ(abnormal, result == 1 ? port : "untouched");
        return result != 0;
    }

    CapturedLog m_log;
    QemuPortDetectPolicy m_policy{"qemu_port_detect_feature"};
};

TEST_F(QemuPortDetectPolicyTest, ATextThatIsNotJsonIsRefusedAndTheOldRulesStay) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    for (const char* text : {"", "no json", "{"}) {
        m_log.Clear();
        EXPECT_FALSE(m_policy.Parse(text)) << text;
        EXPECT_EQ(m_log.Texts(kError), Strings{"Parse policy content failed"});
        EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
    }
}

TEST_F(QemuPortDetectPolicyTest, ATextWithoutContentIsRefusedAndTheOldRulesStay) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    for (const char* text : {"{}", R"({"content":[]})"}) {
        m_log.Clear();
        EXPECT_FALSE(m_policy.Parse(text)) << text;
        EXPECT_EQ(m_log.Texts(kError), Strings{"Parse QemuPortDetect policy content failed"});
        EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
    }
}

TEST_F(QemuPortDetectPolicyTest, ATextWithoutMonitorListIsRefusedAndTheOldRulesStay) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    m_log.Clear();
    EXPECT_FALSE(m_policy.Parse(R"({"content":{"monitor_list":{}}})"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"Parse QemuPortDetect monitor list in policy content failed"});
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
}

TEST_F(QemuPortDetectPolicyTest, AnEmptyMonitorListClearsTheOldRulesAndIsRefusedWithoutALine) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    m_log.Clear();
    EXPECT_FALSE(Parse({}));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qemu"));
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(QemuPortDetectPolicyTest, FiftyRulesAreAllStored) {
    EXPECT_TRUE(Parse(ManyRules(50)));
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu-49"));
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuPortDetectPolicyTest, TheFiftyFirstRuleIsIgnoredAndLoggedOnce) {
    EXPECT_TRUE(Parse(ManyRules(51)));
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu-49"));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qemu-50"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The monitoring list(ArrayIndex=50) exceeds the specification(50) during "
                      "policy parsing."});
}

TEST_F(QemuPortDetectPolicyTest, BadRulesCountAmongTheFifty) {
    Strings rules(50, Rule(""));
    rules.push_back(Rule("qemu"));
    EXPECT_FALSE(Parse(rules));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qemu"));
    const Strings errors = m_log.Texts(kError);
    EXPECT_EQ(errors.size(), 101U) << "two for each, and the limit";
    EXPECT_EQ(errors.back(),
              "The monitoring list(ArrayIndex=50) exceeds the specification(50) during policy "
              "parsing.");
    EXPECT_EQ(m_policy.Find("qemu_port_detect_task"), nullptr);
}

TEST_F(QemuPortDetectPolicyTest, RepeatedPortsCountAmongTheHundred) {
    std::string list = R"("portlist":[)";
    for (int i = 0; i < 100; ++i) {
        list += R"("1",)";
    }
    ASSERT_TRUE(Parse({Rule("qemu", list + R"("2"])")}));
    EXPECT_FALSE(Forbids("1"));
    EXPECT_TRUE(Forbids("2"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The port list(ArrayIndex=100) exceeds the specification(100) during policy "
                      "parsing."});
    EXPECT_TRUE(m_policy.ParseMonitorRule(Rule("other", list + "[]]")))
        << "what comes after them is not looked at";
}

TEST_F(QemuPortDetectPolicyTest, ItsTaskPolicyIsThereWhateverItsConditionIs) {
    EXPECT_TRUE(m_policy.Parse(
        R"({"content":{"monitor_list":[{"virtmonitor":"q","portlist":[]}],"qemu_port_detect_task":"{}"}})"));
    EXPECT_NE(m_policy.Find("qemu_port_detect_task"), nullptr);
}

TEST_F(QemuPortDetectPolicyTest, AHundredPortsAreAllStored) {
    ASSERT_TRUE(Parse({Rule("qemu", Ports(100))}));
    EXPECT_FALSE(Forbids("99"));
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuPortDetectPolicyTest, TheHundredAndFirstPortIsIgnoredAndLoggedOnce) {
    ASSERT_TRUE(Parse({Rule("qemu", Ports(102))}));
    EXPECT_FALSE(Forbids("99"));
    EXPECT_TRUE(Forbids("100"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The port list(ArrayIndex=100) exceeds the specification(100) during policy "
                      "parsing."});
}

TEST_F(QemuPortDetectPolicyTest, ABadRuleIsSkippedAndTheOthersCount) {
    EXPECT_TRUE(Parse({"[]", Rule("qemu")}));
    EXPECT_EQ(m_log.Texts(kError), (Strings{"Monitor process list is null",
                                            "Parse monitor rule in policy content "
                                            "failed"}));
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
}

TEST_F(QemuPortDetectPolicyTest, ARuleWithoutAProgramIsRefused) {
    EXPECT_FALSE(m_policy.ParseMonitorRule(R"({"portlist":[]})"));
    EXPECT_FALSE(m_policy.ParseMonitorRule(Rule("")));
    EXPECT_EQ(m_log.Texts(kError),
              (Strings{"Monitor process list is null", "Monitor process list is null"}));
}

TEST_F(QemuPortDetectPolicyTest, ARuleWithoutPortsIsRefused) {
    EXPECT_FALSE(m_policy.ParseMonitorRule(R"({"virtmonitor":"qemu"})"));
    EXPECT_FALSE(m_policy.ParseMonitorRule(Rule("qemu", R"("portlist":"22")")));
    EXPECT_EQ(m_log.Texts(kError), (Strings{"Parse port list in monitor rule failed",
                                            "Parse port list in monitor rule failed"}));
}

TEST_F(QemuPortDetectPolicyTest, ARuleThatIsNotJsonIsRefused) {
    EXPECT_FALSE(m_policy.ParseMonitorRule("{"));
    EXPECT_EQ(m_log.Texts(kError), Strings{"Parse monitor rule in policy content failed"});
}

TEST_F(QemuPortDetectPolicyTest, OnlyBadRulesLeaveNoneAndAreRefused) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    EXPECT_FALSE(Parse({Rule(""), Rule("")}));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qemu"));
}

TEST_F(QemuPortDetectPolicyTest, ASecondRuleOfAProgramIsDroppedButLoggedAsInserted) {
    EXPECT_TRUE(
        Parse({Rule("qemu", R"("portlist":["22"])"), Rule("qemu", R"("portlist":["23"])")}));
    EXPECT_FALSE(Forbids("22"));
    EXPECT_TRUE(Forbids("23"));
    EXPECT_EQ(m_log.Count(kDebug, "Insert monitor rule(virtcmd:qemu)"), 2U);
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuPortDetectPolicyTest, AnEmptyListAllowsNoPort) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    EXPECT_TRUE(Forbids("22"));
}

TEST_F(QemuPortDetectPolicyTest, PortsAreComparedAsTexts) {
    ASSERT_TRUE(Parse({Rule("qemu", R"("portlist":["022","23 ","24"])")}));
    EXPECT_TRUE(Forbids("22"));
    EXPECT_TRUE(Forbids("23"));
    EXPECT_FALSE(Forbids("24"));
}

TEST_F(QemuPortDetectPolicyTest, PortsThatAreNumbersAreReadAsTheirTexts) {
    ASSERT_TRUE(Parse({Rule("qemu", R"("portlist":[22])")}));
    EXPECT_FALSE(Forbids("22"));
}

TEST_F(QemuPortDetectPolicyTest, AListInAListRefusesTheRule) {
    EXPECT_FALSE(m_policy.ParseMonitorRule(Rule("qemu", R"("portlist":[[]])")));
}

TEST_F(QemuPortDetectPolicyTest, AProgramWithoutARuleMayHoldWhatItWants) {
    ASSERT_TRUE(Parse({Rule("qemu")}));
    EXPECT_FALSE(Forbids("22", "other"));
    EXPECT_FALSE(Forbids("22", "QEMU"));
    EXPECT_FALSE(m_policy.IsMonitorProcess("QEMU"));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qem"));
}

TEST_F(QemuPortDetectPolicyTest, TheAttributeAndTheTasksPolicyAreSet) {
    struct Open : QemuPortDetectPolicy {
        using QemuPortDetectPolicy::QemuPortDetectPolicy;
        int Attribute() const { return m_attribute; }
    };
    EXPECT_EQ(Open("x").Attribute(), 180);
    ASSERT_TRUE(Parse({Rule("qemu")}));
    const auto* task =
        dynamic_cast<QemuPortDetectTaskPolicy*>(m_policy.Find("qemu_port_detect_task"));
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->m_featureName, "qemu_port_detect_task");
}

TEST_F(QemuPortDetectPolicyTest, TheTasksPolicyIsNotMadeWhenThePolicyIsRefused) {
    EXPECT_FALSE(Parse({Rule("")}));
    EXPECT_EQ(m_policy.Find("qemu_port_detect_task"), nullptr);
}

TEST_F(QemuPortDetectPolicyTest, ItsLinesCarryTheirPlaceInTheSource) {
    Strings rules = ManyRules(51);
    rules[0] = Rule("");
    rules[1] = Rule("qemu", Ports(101));
    Parse(rules);
    Parse({});
    m_policy.Parse("{");
    EXPECT_EQ(m_log.Texts(kError).size(), 5U);
    for (const CapturedLog::Line& line : m_log.Lines()) {
        EXPECT_EQ(line.file, "QemuPortDetectPolicy.cpp") << line.text;
        EXPECT_GT(line.line, 0);
    }
}

TEST(QemuPortDetectTaskPolicyTest, AConditionIsReadOnlyFromATextThatIsNotJson) {
    QemuPortDetectTaskPolicy policy("qemu_port_detect_task");
    EXPECT_FALSE(policy.Parse(R"({"task_condition":"{}"})"));
    EXPECT_TRUE(policy.Parse("no json"));
    EXPECT_EQ(policy.GetCondition(), "");
}

TEST(QemuPortDetectPolicySlots, AreThoseOfItsBases) {
    EXPECT_EQ(TestSupport::VirtualSlot(&QemuPortDetectPolicy::Parse), 2U);
    EXPECT_EQ(TestSupport::VirtualSlot(&QemuPortDetectPolicy::Dispatch), 3U);
    EXPECT_EQ(TestSupport::VirtualSlot(&QemuPortDetectPolicy::PolicyChanged), 4U);
}

TEST(QemuPortDetectPolicyLog, ThatCannotBeWrittenRefusesWhatItWasAbout) {
    QemuPortDetectPolicy policy("qemu_port_detect_feature");
    {
        const CapturedLog log;
        Poco::Logger::setChannel("", new TestSupport::BrokenChannel);
        EXPECT_FALSE(policy.Parse("no json"));
        EXPECT_FALSE(policy.ParseMonitorRule(Rule("")));
        EXPECT_FALSE(policy.Parse(CommandPolicy({Rule("")})));
        EXPECT_FALSE(policy.Parse(CommandPolicy({Rule("qemu")}))) << "the debug line throws too";
    }
    EXPECT_TRUE(policy.Parse(CommandPolicy({Rule("qemu")})));
}

}  // namespace
