#include "formats/EcsMapping.h"

#include "MappingChecks.h"
#include "support/FakeClock.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace {

using Engine::EcsMapping;

Json::Value Map(const Json::Value& alarm) { return EcsMapping::Map(alarm, SAMPLE_HOST); }
Json::Value Map(const char* document) { return Map(ParseDocument(document)); }

/// The list as one text.
std::string Show(const Json::Value& list) { return SDK::JsonUtils::JsonToString(list); }

/// What the Elastic Common Schema 8.11 requires: "@timestamp" and "ecs.version" of every event
/// (https://www.elastic.co/guide/en/ecs/8.11/ecs-base.html), and of the categorization fields that
/// kind, category and type are of its words (ecs-allowed-values-event-kind and so on).
void ExpectRequired(const Json::Value& record) {
    static const std::regex time("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z");
    EXPECT_TRUE(std::regex_match(record["@timestamp"].asString(), time)) << record["@timestamp"];
    EXPECT_EQ(record["ecs"]["version"], "8.11.0");
    EXPECT_EQ(record["event"]["kind"], "alert");
    EXPECT_NE(record["event"]["id"].asString(), "");
    EXPECT_NE(record["message"].asString(), "");
    EXPECT_EQ(record["host"]["name"], "host-01");
    EXPECT_EQ(record["agent"]["type"], "vmescape-agent");
    EXPECT_EQ(record["agent"]["version"], "0.1.0");
}

/// The types that the schema expects with each category.
void ExpectTypesOfCategories(const Json::Value& event) {
    const std::map<std::string, std::set<std::string>> expected = {
        {"intrusion_detection", {"allowed", "denied", "info"}},
        {"process", {"access", "change", "end", "info", "start"}},
        {"file", {"access", "change", "creation", "deletion", "info"}},
        {"network",
         {"access", "allowed", "connection", "denied", "end", "info", "protocol", "start"}},
    };
    ASSERT_TRUE(event["category"].isArray() && event["type"].isArray());
    for (const Json::Value& type : event["type"]) {
        bool allowed = false;
        for (const Json::Value& category : event["category"]) {
            ASSERT_EQ(expected.count(category.asString()), 1U) << category;
            allowed = allowed || expected.at(category.asString()).count(type.asString()) == 1;
        }
        EXPECT_TRUE(allowed) << type;
    }
}

TEST(EcsMapping, OfACommandIsThisEvent) {
    const char* expected =
        R"({"@timestamp":"2025-11-20T22:57:13Z",)"
        R"("agent":{"type":"vmescape-agent","version":"0.1.0"},"ecs":{"version":"8.11.0"},)"
        R"("event":{"action":"process-started","category":["intrusion_detection","process"],)"
        R"("code":"vmescape_0001","dataset":"vmescape.alarm",)"
        R"("id":"1339d456-526c-48e8-b706-eb1bc9bc0e8c","kind":"alert","module":"vmescape_module",)"
        R"("provider":"vmescape-agent","reason":"shell","severity":3,"type":["info","start"]},)"
        R"("host":{"boot":{"id":"8f4b1c1e-3a0c-4f0e-9c0b-0d5f6f0f2a11"},"hostname":"host-01",)"
        R"("name":"host-01","os":{"type":"linux"}},)"
        R"("message":"Virtualization process execute sensitive command",)"
        R"("process":{"command_line":"/bin/sh -c id","name":"sh",)"
        R"("parent":{"name":"qemu-kvm","pid":100},"pid":101},)"
        R"("related":{"hosts":["host-01","vm-01"]},"rule":{"id":"vmescape_0001",)"
        R"("name":"Virtualization process execute sensitive command"},)"
        R"("threat":{"framework":"MITRE ATT&CK","tactic":{"id":["TA0004","TA0002"],)"
        R"("name":["Privilege Escalation","Execution"]},"technique":{"id":["T1611","T1059"],)"
        R"("name":["Escape to Host","Command and Scripting Interpreter"],)"
        R"("reference":["https://attack.mitre.org/techniques/T1611/",)"
        R"("https://attack.mitre.org/techniques/T1059/"],)"
        R"("subtechnique":{"id":["T1059.004"],"name":["Unix Shell"],)"
        R"("reference":["https://attack.mitre.org/techniques/T1059/004/"]}}},)"
        R"("vmescape":{"attack_phase":4,"attack_tag":2,"confidence":60,"event_category":2000,)"
        R"("event_count":1,"event_type":2043,"forensic_info":{"monitor_process":"qemu-kvm"},)"
        R"("resource_info":{"vm_name":"vm-01"}}})";
    EXPECT_EQ(SDK::JsonUtils::JsonToString(Map(COMMAND_DOCUMENT)), expected);
}

TEST(EcsMapping, HasWhatTheSchemaRequires) {
    for (const Json::Value& alarm : AllAlarms()) {
        ExpectRequired(Map(alarm));
        ExpectTypesOfCategories(Map(alarm)["event"]);
    }
    for (const Json::Value& alarm : OddAlarms()) {
        SCOPED_TRACE(SDK::JsonUtils::JsonToString(alarm));
        ExpectRequired(Map(alarm));
        ExpectTypesOfCategories(Map(alarm)["event"]);
    }
    ExpectRequired(Map(Json::Value("no document")));
}

TEST(EcsMapping, KeepsEveryFieldOfEveryAlarm) {
    const FieldPlaces places = {
        {"event_id", "event/id"},
        {"occur_time", "@timestamp"},
        {"event_name", "rule/name"},
        {"event_classid", "event/code"},
        {"detect_module", "event/module"},
        {"severity", "event/severity"},
        {"forensic_info/escape_mode", "event/reason"},
        {"forensic_info/abnormal_port", "server/port"},
        {"process_info/0/process_pid", "process/pid"},
        {"process_info/0/process_name", "process/name"},
        {"process_info/0/process_cmdline", "process/command_line"},
        {"process_info/0/parent_process_pid", "process/parent/pid"},
        {"process_info/0/parent_process_name", "process/parent/name"},
        {"file_info/0/file_path", "file/path"},
        {"file_info/0/file_action", "event/action"},
    };
    for (const Json::Value& alarm : AllAlarms()) {
        JsonLeaves expected = LeavesOf(alarm);
        expected["occur_time"] = "2025-11-20T22:57:13Z";
        if (expected.count("forensic_info/abnormal_port") != 0) {
            expected["forensic_info/abnormal_port"] = 4444;
        }
        ExpectAllKept(expected, places, "vmescape", Map(alarm));
    }
}

TEST(EcsMapping, KeepsWhatItDoesNotUnderstandWhereItWas) {
    // The schema's numbers have no bounds, and a process needs no pid.
    const FieldPlaces understood = {
        {"event_classid", "event/code"},
        {"process_info/0/process_pid", "process/pid"},
        {"process_info/0/process_name", "process/name"},
        {"process_info/0/parent_process_name", "process/parent/name"},
    };
    for (const Json::Value& alarm : OddAlarms()) {
        if (!alarm.empty()) {
            SCOPED_TRACE(SDK::JsonUtils::JsonToString(alarm));
            ExpectAllKept(LeavesOf(alarm), understood, "vmescape", Map(alarm));
        }
    }
    EXPECT_FALSE(Map("{}").isMember("vmescape"));
}

TEST(EcsMapping, CategorizesEachDetection) {
    const auto kind = [](const char* document) {
        const Json::Value event = Map(document)["event"];
        return Show(event["category"]) + Show(event["type"]) + Show(event["action"]);
    };
    EXPECT_EQ(kind(COMMAND_DOCUMENT),
              R"(["intrusion_detection","process"]["info","start"]"process-started")");
    EXPECT_EQ(kind(FILE_DOCUMENT), R"(["intrusion_detection","file"]["info","access"]"open")");
    EXPECT_EQ(kind(PORT_DOCUMENT), R"(["intrusion_detection","network"]["info"]"port-open")");
    EXPECT_EQ(kind("{}"), R"(["intrusion_detection"]["info"]null)");
}

TEST(EcsMapping, TellsAFileThatIsChangedFromOneThatIsRead) {
    Json::Value alarm = ParseDocument(FILE_DOCUMENT);
    alarm["file_info"][0]["file_action"] = "modify";
    EXPECT_EQ(Show(Map(alarm)["event"]["type"]), R"(["info","change"])");
}

TEST(EcsMapping, OfAFileWithoutActionHasNone) {
    const Json::Value record = Map(R"({"event_classid":"vmescape_0002"})");
    EXPECT_FALSE(record["event"].isMember("action"));
}

TEST(EcsMapping, TellsWhichFile) {
    const auto file = [](const std::string& path) {
        Json::Value alarm = ParseDocument(FILE_DOCUMENT);
        alarm["file_info"][0]["file_path"] = path;
        return Show(Map(alarm)["file"]);
    };
    EXPECT_EQ(file("/etc/shadow"), R"({"directory":"/etc","name":"shadow","path":"/etc/shadow"})");
    EXPECT_EQ(file("/vmlinuz"), R"({"directory":"/","name":"vmlinuz","path":"/vmlinuz"})");
    EXPECT_EQ(file("/etc/"), R"({"path":"/etc/"})");
    EXPECT_EQ(file("name"), R"({"path":"name"})");
    EXPECT_FALSE(Map(COMMAND_DOCUMENT).isMember("file"));
}

TEST(EcsMapping, TellsWhichPort) {
    const Json::Value record = Map(PORT_DOCUMENT);
    EXPECT_EQ(record["server"]["port"], 4444);
    EXPECT_EQ(record["destination"]["port"], 4444);
    EXPECT_FALSE(Map(COMMAND_DOCUMENT).isMember("server"));
}

TEST(EcsMapping, HasTheTechniquesOfEachDetection) {
    const auto ids = [](const char* document) {
        const Json::Value threat = Map(document)["threat"];
        return Show(threat["tactic"]["id"]) + Show(threat["technique"]["id"]) +
               Show(threat["technique"]["subtechnique"]["id"]);
    };
    EXPECT_EQ(ids(COMMAND_DOCUMENT), R"(["TA0004","TA0002"]["T1611","T1059"]["T1059.004"])");
    EXPECT_EQ(ids(FILE_DOCUMENT), R"(["TA0004","TA0009"]["T1611","T1005"]null)");
    EXPECT_EQ(ids(PORT_DOCUMENT), R"(["TA0004","TA0011"]["T1611","T1571"]null)");
    EXPECT_EQ(ids("{}"), R"(["TA0004"]["T1611"]null)");
}

TEST(EcsMapping, NamesNoMachineThatHasNoName) {
    Json::Value alarm = ParseDocument(COMMAND_DOCUMENT);
    alarm["resource_info"]["vm_name"] = "Unknow";
    EXPECT_EQ(Show(Map(alarm)["related"]["hosts"]), R"(["host-01"])");
    EXPECT_EQ(Map(alarm)["vmescape"]["resource_info"]["vm_name"], "Unknow");
    alarm["resource_info"]["vm_name"] = "host-01";
    EXPECT_EQ(Show(Map(alarm)["related"]["hosts"]), R"(["host-01"])");
}

TEST(EcsMapping, LeavesOutABootIdThatIsNotKnown) {
    const Json::Value record = EcsMapping::Map(ParseDocument("{}"), {"host-01", "", "0.1.0"});
    EXPECT_FALSE(record["host"].isMember("boot"));
    ExpectRequired(record);
}

TEST(EcsMapping, OfWhatIsNoDocumentHoldsTheOriginal) {
    TestSupport::FakeClock clock;
    clock.Set(1700000000);
    const Json::Value record = Map(Json::Value("not { json"));
    EXPECT_EQ(record["event"]["original"], "not { json");
    EXPECT_EQ(record["@timestamp"], "2023-11-14T22:13:20Z");
    EXPECT_FALSE(record.isMember("threat"));
    EXPECT_FALSE(record.isMember("vmescape"));
    EXPECT_FALSE(record.isMember("process"));
}

}  // namespace
