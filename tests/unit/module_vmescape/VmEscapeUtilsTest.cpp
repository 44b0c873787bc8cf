#include "VmEscapeUtils.h"

#include "sdk/JsonUtils.h"
#include "support/FakeClock.h"

#include <gtest/gtest.h>

namespace {

using Engine::VmEscapeUtils;

bool Quick(const char* str1, const char* str2, unsigned int len) {
    return VmEscapeUtils::QuickCompareString(str1, str2, len);
}

TEST(QuickCompareString, WithoutALengthAsksForAPrefix) {
    EXPECT_TRUE(Quick("abc", "abcdef", 0));
    EXPECT_TRUE(Quick("abc", "abc", 0));
    EXPECT_FALSE(Quick("abcdef", "abc", 0));
    EXPECT_FALSE(Quick("", "abc", 0));
}

TEST(QuickCompareString, WithALengthComparesThatManyBytes) {
    EXPECT_TRUE(Quick("abx", "abc", 2));
    EXPECT_TRUE(Quick("abc", "ab", 2));
    EXPECT_FALSE(Quick("abc", "ab", 3));
    EXPECT_FALSE(Quick("", "abc", 2));
}

TEST(QuickCompareString, WithALengthBeyondTheFirstTextAsksForAPrefix) {
    EXPECT_TRUE(Quick("abc", "abcdef", 9));
    EXPECT_FALSE(Quick("abcdef", "abc", 9));
}

TEST(QuickCompareString, IsCaseSensitiveAndRefusesNull) {
    EXPECT_FALSE(Quick("ABC", "abc", 0));
    EXPECT_FALSE(Quick(nullptr, "abc", 0));
    EXPECT_FALSE(Quick("abc", nullptr, 0));
}

TEST(LookUpsInACommandLine, AreThoseOfTheSdk) {
    const std::string cmdline = "qemu -name guest=vm-01,debug-threads=on -uuid 12-34 -vnc :7,to=9";
    std::string value;
    EXPECT_EQ(VmEscapeUtils::GetItemFromCmdline(cmdline, "-vnc", value), 0);
    EXPECT_EQ(value, ":7");
    EXPECT_EQ(VmEscapeUtils::GetVmNameFromCmdline(cmdline), "vm-01");
    EXPECT_EQ(VmEscapeUtils::GetVmUUIDFromCmdline(cmdline), "12-34");
    EXPECT_EQ(VmEscapeUtils::GetItemFromCmdline("", "-vnc", value), -1);
    for (const std::string& unknown :
         {value, VmEscapeUtils::GetVmNameFromCmdline(""), VmEscapeUtils::GetVmUUIDFromCmdline(""),
          std::string(VmEscapeUtils::UNKNOWN)}) {
        EXPECT_EQ(unknown, "Unknow");
    }
}

TEST(GenerateAlarmCommonInfo, WritesTheFieldsThatAllAlarmsShare) {
    TestSupport::FakeClock clock;
    clock.Set(1700000000);
    Json::Value alarm;
    EXPECT_EQ(VmEscapeUtils::GenerateAlarmCommonInfo(alarm), 0);
    EXPECT_EQ(alarm["event_id"].asString().size(), 36U);
    alarm.removeMember("event_id");
    EXPECT_EQ(
        SDK::JsonUtils::JsonToString(alarm),
        R"({"attack_phase":4,"attack_tag":2,"confidence":60,"detect_module":"vmescape_module",)"
        R"("event_category":2000,"event_count":1,"event_type":2043,"occur_time":1700000000,)"
        R"("severity":3})");
}

TEST(GenerateAlarmCommonInfo, TellsTimesBeyondTheYear2038) {
    TestSupport::FakeClock clock;
    clock.Set(5000000000);
    Json::Value alarm;
    VmEscapeUtils::GenerateAlarmCommonInfo(alarm);
    EXPECT_EQ(alarm["occur_time"].type(), Json::intValue);
    EXPECT_EQ(alarm["occur_time"].asInt64(), 5000000000);
    EXPECT_NE(SDK::JsonUtils::JsonToString(alarm).find(R"("occur_time":5000000000)"),
              std::string::npos);
}

TEST(GenerateAlarmCommonInfo, GivesEachAlarmAnIdOfItsOwn) {
    const TestSupport::FakeClock clock;
    Json::Value first;
    Json::Value second;
    VmEscapeUtils::GenerateAlarmCommonInfo(first);
    VmEscapeUtils::GenerateAlarmCommonInfo(second);
    EXPECT_EQ(first["occur_time"], second["occur_time"]);
    EXPECT_NE(first["event_id"], second["event_id"]);
}

TEST(GenerateAlarmCommonInfo, OverwritesItsOwnFieldsAndKeepsTheOthers) {
    Json::Value alarm;
    alarm["severity"] = 5;
    alarm["mine"] = "kept";
    VmEscapeUtils::GenerateAlarmCommonInfo(alarm);
    EXPECT_EQ(alarm["severity"].asInt(), 3);
    EXPECT_EQ(alarm["mine"].asString(), "kept");
}

}  // namespace
