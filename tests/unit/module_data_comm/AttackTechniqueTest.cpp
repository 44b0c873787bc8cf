#include "formats/AttackTechnique.h"

#include "SampleAlarm.h"

#include <gtest/gtest.h>

namespace {

using Ids = std::vector<std::string>;

/// Tactic and technique of each, "TA0004 T1611"; a sub-technique stands for its technique.
Ids IdsOf(const Json::Value& alarm) {
    Ids ids;
    for (const Engine::AttackTechnique& technique :
         Engine::TechniquesOf(Engine::AlarmFields(alarm))) {
        const std::string sub = technique.m_subId;
        EXPECT_TRUE(sub.empty() || sub.rfind(std::string(technique.m_id) + '.', 0) == 0) << sub;
        EXPECT_EQ(sub.empty(), std::string(technique.m_subName).empty());
        ids.push_back(std::string(technique.m_tacticId) + ' ' +
                      (sub.empty() ? technique.m_id : sub));
    }
    return ids;
}

// The ids are those of https://attack.mitre.org/versions/v16/matrices/enterprise/.

TEST(AttackTechnique, OfAShellIsUnixShell) {
    EXPECT_EQ(IdsOf(ParseDocument(COMMAND_DOCUMENT)), (Ids{"TA0004 T1611", "TA0002 T1059.004"}));
}

TEST(AttackTechnique, OfAnotherCommandIsThatAProgramWasStarted) {
    for (const char* mode : {"system/fork", "forbidden dir", ""}) {
        Json::Value alarm = ParseDocument(COMMAND_DOCUMENT);
        alarm["forensic_info"]["escape_mode"] = mode;
        EXPECT_EQ(IdsOf(alarm), (Ids{"TA0004 T1611", "TA0002 T1106"})) << mode;
    }
}

TEST(AttackTechnique, OfAFileThatIsReadIsCollection) {
    for (const char* action : {"open", "access", "close", "unkonw"}) {
        Json::Value alarm = ParseDocument(FILE_DOCUMENT);
        alarm["file_info"][0]["file_action"] = action;
        EXPECT_EQ(IdsOf(alarm), (Ids{"TA0004 T1611", "TA0009 T1005"})) << action;
    }
}

TEST(AttackTechnique, OfAFileThatIsWrittenIsManipulation) {
    Json::Value alarm = ParseDocument(FILE_DOCUMENT);
    alarm["file_info"][0]["file_action"] = "modify";
    EXPECT_EQ(IdsOf(alarm), (Ids{"TA0004 T1611", "TA0040 T1565.001"}));
}

TEST(AttackTechnique, OfAPortIsNonStandardPort) {
    EXPECT_EQ(IdsOf(ParseDocument(PORT_DOCUMENT)), (Ids{"TA0004 T1611", "TA0011 T1571"}));
}

TEST(AttackTechnique, OfADetectionThatIsNotKnownIsTheEscapeAlone) {
    EXPECT_EQ(IdsOf(ParseDocument(R"({"event_classid":"vmescape_0099"})")), Ids{"TA0004 T1611"});
    EXPECT_EQ(IdsOf(ParseDocument(R"({"event_classid":1})")), Ids{"TA0004 T1611"});
}

}  // namespace
