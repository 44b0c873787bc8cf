#include "formats/AlarmFormatter.h"

#include "MappingChecks.h"
#include "SampleAlarm.h"
#include "formats/EcsMapping.h"
#include "formats/OcsfMapping.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

using Engine::AlarmFormatter;

const AlarmFormatter kText(AlarmFormatter::Style::TEXT, false);
const AlarmFormatter kJson(AlarmFormatter::Style::JSON, false, SAMPLE_HOST);
const AlarmFormatter kOcsf(AlarmFormatter::Style::OCSF, false, SAMPLE_HOST);
const AlarmFormatter kEcs(AlarmFormatter::Style::ECS, false, SAMPLE_HOST);

/// Times are shown in the reader's own zone; here that is UTC.
class AlarmText : public testing::Test {
protected:
    AlarmText() {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    static std::string Format(const Json::Value& alarm) {
        return kText.Format(SDK::JsonUtils::JsonToString(alarm));
    }
};

TEST(AlarmJson, IsTheDocumentItself) {
    EXPECT_EQ(kJson.Format(SampleDocument()), SampleDocument());
}

TEST(AlarmJson, StaysOnOneLineWhateverTheDocumentHolds) {
    EXPECT_EQ(kJson.Format("{\n\t\"a\":\r 1}"), "{  \"a\":  1}");
}

TEST(AlarmJson, HoldsNothingOfTheHost) {
    for (const Json::Value& alarm : AllAlarms()) {
        const std::string line = kJson.Format(SDK::JsonUtils::JsonToString(alarm));
        EXPECT_EQ(line.find(SAMPLE_HOST.m_name), std::string::npos);
        EXPECT_EQ(line.find(SAMPLE_HOST.m_bootId), std::string::npos);
    }
}

TEST(AlarmRecord, IsTheMappingOnOneLine) {
    for (const Json::Value& alarm : AllAlarms()) {
        const std::string document = SDK::JsonUtils::JsonToString(alarm);
        EXPECT_EQ(ParseDocument(kOcsf.Format(document)),
                  Engine::OcsfMapping::Map(alarm, SAMPLE_HOST));
        EXPECT_EQ(ParseDocument(kEcs.Format(document)),
                  Engine::EcsMapping::Map(alarm, SAMPLE_HOST));
    }
}

TEST(AlarmRecord, IsOneLineOfValidJsonWhateverTheDocumentHolds) {
    std::string bytes = SampleDocument();
    bytes.replace(bytes.find("vm-01"), 5, "vm\xff\xc3");
    for (const std::string& document :
         {std::string(), std::string("not\x1b\njson\xff"), std::string("a\0b", 3), bytes,
          std::string("[{\"event_id\":\"x\"}]"), std::string("7"), std::string("null"),
          std::string("{\"a\":\"\\n\\u0000\\u2028\"}")}) {
        for (const AlarmFormatter* formatter : {&kOcsf, &kEcs}) {
            const std::string line = formatter->Format(document);
            EXPECT_TRUE(ParseDocument(line).isObject()) << line;
            for (const char character : line) {
                EXPECT_GE(character, 0x20) << line;
            }
        }
    }
}

TEST(AlarmRecord, HoldsWhatIsNoDocumentAsItCame) {
    const std::string text = "not { json";
    EXPECT_EQ(ParseDocument(kOcsf.Format(text))["raw_data"], text);
    EXPECT_EQ(ParseDocument(kEcs.Format(text))["event"]["original"], text);
    EXPECT_EQ(ParseDocument(kOcsf.Format("[1, 2]"))["raw_data"], "[1, 2]");
    EXPECT_EQ(ParseDocument(kEcs.Format("[1, 2]"))["event"]["original"], "[1, 2]");
}

TEST_F(AlarmText, TellsTimeVmWhatProcessAndParentOnOneLine) {
    EXPECT_EQ(Format(SampleAlarm()),
              "2025-11-20 22:57:13  vm-01  shell  sh(101) \"/bin/sh -c id\"  "
              "from qemu-system-x86_64(100)");
}

TEST_F(AlarmText, TellsWhatWasDoneToWhichFile) {
    Json::Value alarm = SampleAlarm();
    alarm["event_name"] = "Virtualization process access sensitive file";
    alarm["forensic_info"].removeMember("escape_mode");
    alarm["process_info"] = Json::arrayValue;
    alarm["process_info"][0]["process_name"] = "cat";
    alarm["process_info"][0]["process_pid"] = 101;
    alarm["file_info"][0]["file_path"] = "/etc/sha\ndow";
    alarm["file_info"][0]["file_action"] = "open";
    EXPECT_EQ(Format(alarm),
              "2025-11-20 22:57:13  vm-01  Virtualization process access sensitive file  cat(101)  "
              "open \"/etc/sha\\ndow\"");
}

TEST_F(AlarmText, TellsWhichPort) {
    Json::Value alarm = SampleAlarm();
    alarm["event_name"] = "Virtualization process access abnormal network port";
    alarm["forensic_info"].removeMember("escape_mode");
    alarm["forensic_info"]["abnormal_port"] = "4444";
    alarm["process_info"] = Json::arrayValue;
    alarm["process_info"][0]["process_name"] = "qemu-kvm";
    alarm["process_info"][0]["process_pid"] = 101;
    EXPECT_EQ(Format(alarm),
              "2025-11-20 22:57:13  vm-01  Virtualization process access abnormal network port  "
              "qemu-kvm(101)  port 4444");
}

TEST_F(AlarmText, ColoursTimeVmAndWhatWhenAskedTo) {
    const AlarmFormatter colored(AlarmFormatter::Style::TEXT, true);
    EXPECT_EQ(colored.Format(SampleDocument()),
              "\x1b[2m2025-11-20 22:57:13\x1b[0m  \x1b[1mvm-01\x1b[0m  \x1b[1;31mshell\x1b[0m  "
              "sh(101) \"/bin/sh -c id\"  from qemu-system-x86_64(100)");
}

TEST_F(AlarmText, NeverPassesControlCharactersOn) {
    Json::Value alarm = SampleAlarm();
    alarm["resource_info"]["vm_name"] = "vm\x1b[2J\nfake";
    alarm["process_info"][0]["process_name"] = "\r\x07sh";
    alarm["process_info"][0]["process_cmdline"] = std::string("a\0b\x7f", 4);
    const std::string line = Format(alarm);
    EXPECT_NE(line.find("vm\\x1b[2J\\nfake"), std::string::npos) << line;
    EXPECT_NE(line.find("\"a\\x00b\\x7f\""), std::string::npos) << line;
    for (const char character : line) {
        EXPECT_GE(static_cast<unsigned char>(character), 0x20);
    }
}

TEST_F(AlarmText, EscapesBytesThatAreNotUtf8) {
    std::string document = SampleDocument();
    document.replace(document.find("vm-01"), 5, "vm\xff\xc3");
    EXPECT_NE(kText.Format(document).find("vm\\xff\\xc3"), std::string::npos)
        << kText.Format(document);
}

TEST_F(AlarmText, KeepsLettersOfAllLanguages) {
    Json::Value alarm = SampleAlarm();
    alarm["resource_info"]["vm_name"] = "r\xc3\xa9seau";
    EXPECT_NE(Format(alarm).find("r\xc3\xa9seau"), std::string::npos);
}

TEST_F(AlarmText, NamesTheEventWhereTheDetectionHasNoWordForIt) {
    Json::Value alarm = SampleAlarm();
    alarm.removeMember("forensic_info");
    alarm["process_info"][0].removeMember("process_cmdline");
    alarm["process_info"][0].removeMember("parent_process_name");
    EXPECT_EQ(Format(alarm),
              "2025-11-20 22:57:13  vm-01  Virtualization process execute sensitive command  "
              "sh(101)");
}

TEST_F(AlarmText, SurvivesMembersOfAnyType) {
    Json::Value alarm;
    alarm["occur_time"] = "soon";
    alarm["process_info"] = 7;
    alarm["resource_info"] = Json::arrayValue;
    alarm["forensic_info"] = "shell";
    EXPECT_EQ(Format(alarm), "-");
    alarm["process_info"] = Json::arrayValue;
    alarm["process_info"].append("sh");
    EXPECT_EQ(Format(alarm), "-");
}

TEST_F(AlarmText, ShowsWhatIsNoDocumentEscaped) {
    EXPECT_EQ(kText.Format("not\x1bjson"), "not\\x1bjson");
    EXPECT_EQ(kText.Format("[1]"), "[1]");
    EXPECT_EQ(kText.Format(""), "");
}

}  // namespace
