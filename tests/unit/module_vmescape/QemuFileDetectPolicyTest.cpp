#include "QemuFileDetectPolicy.h"

#include "OpenFileTask.h"
#include "QemuFileDetectTaskPolicy.h"
#include "support/CapturedLog.h"
#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

using Engine::QemuFileDetectPolicy;
using Engine::QemuFileDetectTaskPolicy;
using TestSupport::CapturedLog;
using Set = std::set<std::string>;
using Strings = std::vector<std::string>;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;

std::string Rule(const std::string& program, const std::string& more = R"("filelist":[])") {
    return R"({"virtmonitor":")" + program + R"(",)" + more + "}";
}

std::string Content(const std::string& rules, const std::string& dirs = R"(["/etc"])",
                    const std::string& more = "") {
    return R"({"senstive_dirs":)" + dirs + more + R"(,"monitor_list":[)" + rules + "]}";
}

std::string Text(const std::string& content) { return R"({"content":)" + content + "}"; }

Strings Numbers(int count) {
    Strings numbers;
    for (int i = 0; i < count; ++i) {
        numbers.push_back("/" + std::to_string(i));
    }
    return numbers;
}

Strings HundredEqualAndALast() {
    Strings texts(100, "/same");
    texts.emplace_back("/last");
    return texts;
}

std::string ManyRules(int count) {
    std::string rules;
    for (int i = 0; i < count; ++i) {
        rules += (i == 0 ? "" : ",") + Rule("qemu-" + std::to_string(i));
    }
    return rules;
}

class QemuFileDetectPolicyTest : public testing::Test {
protected:
    Set Dirs() {
        Set dirs;
        m_policy.GetMonitorDirs(dirs);
        return dirs;
    }

    CapturedLog m_log;
    QemuFileDetectPolicy m_policy{"qemu_file_detect_feature"};
};

TEST_F(QemuFileDetectPolicyTest, ATextThatIsNotJsonOrHasNoContentIsRefused) {
    for (const char* text : {"", "{", "no json", "{}", R"({"content":[]})"}) {
        m_log.Clear();
        EXPECT_FALSE(m_policy.Parse(text)) << text;
        EXPECT_EQ(m_log.Texts(kError), Strings{"Parse policy content failed"}) << text;
    }
}

TEST_F(QemuFileDetectPolicyTest, DirectoriesAreAddedToTheSetThatIsGiven) {
    ASSERT_TRUE(m_policy.Parse(Text(Content(Rule("qemu"), R"(["/b","/a","/b"])"))));
    Set dirs{"/mine"};
    m_policy.GetMonitorDirs(dirs);
    EXPECT_EQ(dirs, (Set{"/a", "/b", "/mine"}));
    EXPECT_EQ(m_log.Count(kDebug, "insert monitor dir(/b) in QemuFileDetectPolicy::Parse"), 2U);
}

TEST_F(QemuFileDetectPolicyTest, WithoutDirectoriesItIsRefusedAndTheOldOnesStay) {
    ASSERT_TRUE(m_policy.Parse(Text(Content(Rule("qemu")))));
    for (const char* content : {R"({"monitor_list":[]})", R"({"senstive_dirs":"/x"})"}) {
        m_log.Clear();
        EXPECT_FALSE(m_policy.Parse(Text(content)));
        EXPECT_EQ(m_log.Texts(kError), Strings{"Parse senstive_dirs in policy content failed"});
        EXPECT_EQ(Dirs(), Set{"/etc"});
        EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
    }
}

TEST_F(QemuFileDetectPolicyTest, AnEmptyListOfDirectoriesIsAccepted) {
    ASSERT_TRUE(m_policy.Parse(Text(Content(Rule("qemu")))));
    EXPECT_TRUE(m_policy.Parse(Text(Content(Rule("qemu"), "[]"))));
    EXPECT_TRUE(Dirs().empty());
}

TEST_F(QemuFileDetectPolicyTest, AHundredDirectoriesAreAllKept) {
    EXPECT_TRUE(m_policy.Parse(Text(Content(Rule("qemu"), JsonList(Numbers(100))))));
    EXPECT_EQ(Dirs().size(), 100U);
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuFileDetectPolicyTest, TheHundredAndFirstDirectoryIsIgnoredAndLogged) {
    EXPECT_TRUE(m_policy.Parse(Text(Content(Rule("qemu"), JsonList(Numbers(102))))));
    EXPECT_EQ(Dirs().size(), 100U);
    EXPECT_EQ(Dirs().count("/99"), 1U);
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The sensitive dirs(ArrayIndex=100) exceeds the specification(100) during "
                      "policy parsing."});
}

TEST_F(QemuFileDetectPolicyTest, TheLimitOfDirectoriesCountsEqualOnesToo) {
    EXPECT_TRUE(m_policy.Parse(Text(Content(Rule("qemu"), JsonList(HundredEqualAndALast())))));
    EXPECT_EQ(Dirs(), Set{"/same"});
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The sensitive dirs(ArrayIndex=100) exceeds the specification(100) during "
                      "policy parsing."});
}

TEST_F(QemuFileDetectPolicyTest, WithoutMonitorListItIsRefusedAndTheOldRulesStay) {
    ASSERT_TRUE(m_policy.Parse(Text(Content(Rule("qemu")))));
    m_log.Clear();
    EXPECT_FALSE(m_policy.Parse(Text(R"({"senstive_dirs":["/new"]})")));
    EXPECT_EQ(m_log.Texts(kError), Strings{"Parse monitor list in policy content failed"});
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu"));
    EXPECT_EQ(Dirs(), Set{"/new"}) << "what was reached before is replaced";
}

TEST_F(QemuFileDetectPolicyTest, AnEmptyMonitorListClearsTheRulesAndIsRefusedWithoutALine) {
    ASSERT_TRUE(m_policy.Parse(Text(Content(Rule("qemu")))));
    m_log.Clear();
    EXPECT_FALSE(m_policy.Parse(Text(Content(""))));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qemu"));
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuFileDetectPolicyTest, TextsThatAreNotJsonAreRefusedByEachReader) {
    EXPECT_FALSE(m_policy.ParseMonitorList("{"));
    EXPECT_FALSE(m_policy.ParseMonitorRule("{"));
    EXPECT_FALSE(m_policy.ParseSenstiveDirs("{"));
    EXPECT_EQ(m_log.Texts(kError),
              (Strings{"Parse policy content failed", "Parse monitor rule in policy content failed",
                       "Parse senstive_dirs in policy content failed"}));
}

TEST_F(QemuFileDetectPolicyTest, FiftyRulesAreAllStored) {
    EXPECT_TRUE(m_policy.Parse(Text(Content(ManyRules(50)))));
    EXPECT_TRUE(m_policy.IsMonitorProcess("qemu-49"));
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuFileDetectPolicyTest, TheFiftyFirstRuleIsIgnoredAndLogged) {
    for (const int count : {51, 52}) {
        m_log.Clear();
        EXPECT_TRUE(m_policy.Parse(Text(Content(ManyRules(count)))));
        EXPECT_TRUE(m_policy.IsMonitorProcess("qemu-49"));
        EXPECT_FALSE(m_policy.IsMonitorProcess("qemu-50"));
        EXPECT_EQ(m_log.Texts(kError),
                  Strings{"The monitoring list(ArrayIndex=50) exceeds the specification(50)."});
    }
}

TEST_F(QemuFileDetectPolicyTest, TheLimitOfRulesCountsBadOnesToo) {
    std::string rules;
    Strings lines;
    for (int i = 0; i < 50; ++i) {
        rules += "{},";
        lines.push_back("Parse monitor filelist(ArrayIndex=" + std::to_string(i) +
                        ") in policy content failed");
    }
    lines.emplace_back("The monitoring list(ArrayIndex=50) exceeds the specification(50).");
    EXPECT_FALSE(m_policy.Parse(Text(Content(rules + Rule("qemu")))));
    EXPECT_FALSE(m_policy.IsMonitorProcess("qemu"));
    EXPECT_EQ(m_log.Texts(kError), lines);
}

TEST_F(QemuFileDetectPolicyTest, ABadRuleIsLoggedWithItsIndexAndTheOthersCount) {
    EXPECT_TRUE(m_policy.Parse(Text(Content(Rule("a") + ",[]," + Rule("b")))));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"Parse monitor filelist(ArrayIndex=1) in policy content failed"});
    EXPECT_TRUE(m_policy.IsMonitorProcess("b"));
}

TEST_F(QemuFileDetectPolicyTest, ARuleWithoutAProgramIsRefusedWithoutALine) {
    EXPECT_FALSE(m_policy.ParseMonitorRule(Rule("")));
    EXPECT_FALSE(m_policy.ParseMonitorRule(R"({"filelist":[]})"));
    EXPECT_TRUE(m_log.Lines().empty());
    EXPECT_FALSE(m_policy.Parse(Text(Content(Rule(""))))) << "it was the only one";
}

TEST_F(QemuFileDetectPolicyTest, AProgramThatIsNoTextIsLikeNone) {
    for (const char* program : {"5", "null", "true", "[]", "{}"}) {
        EXPECT_FALSE(m_policy.ParseMonitorRule(R"({"virtmonitor":)" + std::string(program) +
                                               R"(,"filelist":[]})"))
            << program;
    }
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(QemuFileDetectPolicyTest, ARuleWithoutFilesIsRefused) {
    EXPECT_FALSE(m_policy.ParseMonitorRule(R"({"virtmonitor":"qemu"})"));
    EXPECT_FALSE(m_policy.ParseMonitorRule(Rule("qemu", R"("filelist":{})")));
    EXPECT_EQ(m_log.Texts(kError), (Strings{"Parse file list in monitor rule failed",
                                            "Parse file list in monitor rule failed"}));
}

TEST_F(QemuFileDetectPolicyTest, AHundredFilesAreAllStored) {
    ASSERT_TRUE(m_policy.ParseMonitorRule(Rule("qemu", R"("filelist":)" + JsonList(Numbers(100)))));
    EXPECT_FALSE(m_policy.MatchMonitorRule("qemu", "/99"));
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(QemuFileDetectPolicyTest, TheHundredAndFirstFileIsIgnoredAndLoggedAsACommand) {
    ASSERT_TRUE(m_policy.ParseMonitorRule(Rule("qemu", R"("filelist":)" + JsonList(Numbers(102)))));
    EXPECT_FALSE(m_policy.MatchMonitorRule("qemu", "/99"));
    EXPECT_TRUE(m_policy.MatchMonitorRule("qemu", "/100"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The cmd list(ArrayIndex=100) exceeds the specification(100) during policy "
                      "parsing."});
}

TEST_F(QemuFileDetectPolicyTest, TheLimitOfFilesCountsEqualOnesToo) {
    ASSERT_TRUE(m_policy.ParseMonitorRule(
        Rule("qemu", R"("filelist":)" + JsonList(HundredEqualAndALast()))));
    EXPECT_FALSE(m_policy.MatchMonitorRule("qemu", "/same"));
    EXPECT_TRUE(m_policy.MatchMonitorRule("qemu", "/last"));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The cmd list(ArrayIndex=100) exceeds the specification(100) during policy "
                      "parsing."});
}

TEST_F(QemuFileDetectPolicyTest, StoringIsLogged) {
    ASSERT_TRUE(m_policy.ParseMonitorRule(Rule("qemu", R"("filelist":["/a"])")));
    EXPECT_EQ(m_log.Texts(kDebug), (Strings{"Insert file(filename=/a,virtmonitor:qemu)",
                                            "Insert monitor rule(virtmonitor:qemu)"}));
}

TEST_F(QemuFileDetectPolicyTest, ASecondRuleOfAProgramIsDroppedSilently) {
    EXPECT_TRUE(m_policy.ParseMonitorRule(Rule("qemu", R"("filelist":["/a"])")));
    EXPECT_TRUE(m_policy.ParseMonitorRule(Rule("qemu", R"("filelist":["/b"])")));
    EXPECT_FALSE(m_policy.MatchMonitorRule("qemu", "/a"));
    EXPECT_TRUE(m_policy.MatchMonitorRule("qemu", "/b"));
    EXPECT_TRUE(m_log.Texts(kError).empty());
    EXPECT_EQ(m_log.Count(kDebug, "Insert monitor rule(virtmonitor:qemu)"), 2U);
}

TEST_F(QemuFileDetectPolicyTest, EntriesThatAreNoTextsAreConvertedWhereThatCanBe) {
    EXPECT_TRUE(m_policy.ParseMonitorRule(Rule("qemu", R"("filelist":[7])")));
    EXPECT_FALSE(m_policy.MatchMonitorRule("qemu", "7"));
    EXPECT_FALSE(m_policy.ParseMonitorRule(Rule("other", R"("filelist":[[]])")));
    EXPECT_FALSE(m_policy.ParseSenstiveDirs(R"({"senstive_dirs":[{}]})"));
}

TEST_F(QemuFileDetectPolicyTest, NumbersBooleansAndNullAreTakenAsTheirTexts) {
    const std::string list = R"(["/a",7,-3,true,null,1.5,18446744073709551615])";
    const Set texts{"", "-3", "/a", "1.5", "18446744073709551615", "7", "true"};
    ASSERT_TRUE(m_policy.Parse(
        Text(Content(Rule("qemu", R"("filelist":)" + list), list, R"(,"action":false)"))));
    EXPECT_EQ(Dirs(), texts);
    for (const std::string& text : texts) {
        EXPECT_TRUE(m_policy.MatchMonitorRule("qemu", text)) << text;
    }
}

TEST_F(QemuFileDetectPolicyTest, AnActionThatIsNoBooleanAllows) {
    for (const char* action : {R"("false")", "0", "null"}) {
        ASSERT_TRUE(m_policy.Parse(
            Text(Content(Rule("qemu"), "[]", R"(,"action":)" + std::string(action)))))
            << action;
        EXPECT_TRUE(m_policy.MatchMonitorRule("qemu", "/unlisted")) << action;
    }
}

TEST_F(QemuFileDetectPolicyTest, ListsAllowUnlessTheActionSaysDeny) {
    const std::string rule = Rule("qemu", R"("filelist":["/a"])");
    ASSERT_TRUE(m_policy.Parse(Text(Content(rule))));
    EXPECT_FALSE(m_policy.MatchMonitorRule("qemu", "/a"));
    EXPECT_TRUE(m_policy.MatchMonitorRule("qemu", "/b"));
    ASSERT_TRUE(m_policy.Parse(Text(Content(rule, "[]", R"(,"action":false)"))));
    EXPECT_TRUE(m_policy.MatchMonitorRule("qemu", "/a"));
    EXPECT_FALSE(m_policy.MatchMonitorRule("qemu", "/b"));
}

TEST_F(QemuFileDetectPolicyTest, AProgramWithoutARuleBreaksNone) {
    ASSERT_TRUE(m_policy.Parse(Text(Content(Rule("qemu")))));
    EXPECT_FALSE(m_policy.MatchMonitorRule("other", "/a"));
    EXPECT_FALSE(m_policy.IsMonitorProcess("other"));
    EXPECT_FALSE(m_policy.IsMonitorProcess("QEMU"));
}

TEST_F(QemuFileDetectPolicyTest, PathsAreComparedWhole) {
    ASSERT_TRUE(m_policy.Parse(
        Text(Content(Rule("qemu", R"("filelist":["/etc/a"])"), "[]", R"(,"action":false)"))));
    for (const char* path : {"/etc", "/etc/a/b", "/etc/A", "/etc//a", "/etc/a "}) {
        EXPECT_FALSE(m_policy.MatchMonitorRule("qemu", path)) << path;
    }
}

TEST_F(QemuFileDetectPolicyTest, TheActionStaysEvenWhenTheRestIsRefused) {
    ASSERT_TRUE(m_policy.Parse(Text(Content(Rule("qemu", R"("filelist":["/a"])")))));
    EXPECT_FALSE(m_policy.Parse(Text(R"({"action":false})")));
    EXPECT_TRUE(m_policy.MatchMonitorRule("qemu", "/a")) << "the old rule, read as a deny list";
}

TEST_F(QemuFileDetectPolicyTest, TheAttributeAndTheTasksPolicyAreSet) {
    struct Open : QemuFileDetectPolicy {
        using QemuFileDetectPolicy::QemuFileDetectPolicy;
        int Attribute() const { return m_attribute; }
    };
    EXPECT_EQ(Open("x").Attribute(), 180);
    EXPECT_FALSE(m_policy.Parse(Text(Content(""))));
    EXPECT_EQ(m_policy.Find("qemu_file_detect_task"), nullptr);
    ASSERT_TRUE(m_policy.Parse(Text(Content(Rule("qemu")))));
    EXPECT_NE(dynamic_cast<QemuFileDetectTaskPolicy*>(m_policy.Find("qemu_file_detect_task")),
              nullptr);
}

TEST_F(QemuFileDetectPolicyTest, ABadTaskPolicyDoesNotRefuseThePolicy) {
    EXPECT_TRUE(m_policy.Parse(Text(
        Content(Rule("qemu"), "[]", R"(,"qemu_file_detect_task":"{\"task_condition\":\"x\"}")"))));
}

TEST(QemuFileDetectTaskPolicyTest, AConditionIsReadOnlyFromATextThatIsNotJson) {
    QemuFileDetectTaskPolicy policy("qemu_file_detect_task");
    EXPECT_FALSE(policy.Parse(R"({"task_condition":"{}"})"));
    EXPECT_TRUE(policy.Parse("no json"));
    EXPECT_EQ(policy.GetCondition(), "");
}

TEST(QemuFileDetectPolicySlots, AreThoseOfItsBases) {
    EXPECT_EQ(TestSupport::VirtualSlot(&QemuFileDetectPolicy::Parse), 2U);
    EXPECT_EQ(TestSupport::VirtualSlot(&QemuFileDetectPolicy::Dispatch), 3U);
}

}  // namespace
