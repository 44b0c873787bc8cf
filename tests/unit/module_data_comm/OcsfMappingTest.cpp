#include "formats/OcsfMapping.h"

#include "MappingChecks.h"
#include "support/FakeClock.h"

#include <gtest/gtest.h>

namespace {

using Engine::OcsfMapping;

Json::Value Map(const Json::Value& alarm) { return OcsfMapping::Map(alarm, SAMPLE_HOST); }
Json::Value Map(const char* document) { return Map(ParseDocument(document)); }

/// Attributes that the Open Cybersecurity Schema Framework 1.6.0 requires of a Detection Finding
/// (class 2004, https://schema.ocsf.io/1.6.0/classes/detection_finding), of its profile "Security
/// Control" and of the objects that it always has here; of some objects any one of several. To
/// "product" and "finding_info" belongs what earlier versions required beside.
void ExpectRequired(const Json::Value& finding) {
    const JsonLeaves leaves = LeavesOf(finding);
    for (const char* place : {"activity_id", "category_uid", "class_uid", "severity_id", "time",
                              "type_uid", "action_id", "device/type_id", "device/os/type_id"}) {
        ASSERT_EQ(leaves.count(place), 1U) << place;
        EXPECT_TRUE(leaves.at(place).isIntegral()) << place;
    }
    for (const char* place :
         {"metadata/version", "metadata/product/name", "metadata/product/vendor_name",
          "metadata/product/version", "finding_info/uid", "finding_info/title", "device/hostname",
          "device/os/name", "message"}) {
        ASSERT_EQ(leaves.count(place), 1U) << place;
        EXPECT_TRUE(leaves.at(place).isString()) << place;
        EXPECT_NE(leaves.at(place).asString(), "") << place;
    }
    EXPECT_EQ(finding["type_uid"].asInt(),
              finding["class_uid"].asInt() * 100 + finding["activity_id"].asInt());
}

/// The same for objects that only some findings have.
void ExpectWhole(const Json::Value& finding) {
    for (const Json::Value& evidence : finding["evidences"]) {
        EXPECT_FALSE(evidence.empty());
        for (const Json::Value& process : {evidence["process"], evidence["actor"]["process"],
                                           evidence["process"]["parent_process"]}) {
            EXPECT_TRUE(process.isNull() || process["pid"].isInt()) << process;
        }
        const Json::Value& file = evidence["file"];
        EXPECT_TRUE(file.isNull() || (file["name"].isString() && file["type_id"].isInt())) << file;
        const Json::Value& endpoint = evidence["dst_endpoint"];
        EXPECT_TRUE(endpoint.isNull() || endpoint["hostname"].isString()) << endpoint;
    }
    for (const Json::Value& resource : finding["resources"]) {
        EXPECT_TRUE(resource["name"].isString());
    }
    const Json::Value& analytic = finding["finding_info"]["analytic"];
    EXPECT_TRUE(analytic.isNull() || (analytic["uid"].isString() && analytic["type_id"].isInt()));
}

TEST(OcsfMapping, OfACommandIsThisFinding) {
    const char* expected =
        R"({"action":"Observed","action_id":3,"activity_id":1,"activity_name":"Create",)"
        R"("category_name":"Findings","category_uid":2,"class_name":"Detection Finding",)"
        R"("class_uid":2004,"confidence_score":60,"count":1,)"
        R"("device":{"boot_uid":"8f4b1c1e-3a0c-4f0e-9c0b-0d5f6f0f2a11","hostname":"host-01",)"
        R"("hypervisor":"qemu-kvm","os":{"name":"Linux","type":"Linux","type_id":200},)"
        R"("type":"Server","type_id":1},"disposition":"Alert","disposition_id":19,)"
        R"("evidences":[{"process":{"cmd_line":"/bin/sh -c id","name":"sh",)"
        R"("parent_process":{"name":"qemu-kvm","pid":100},"pid":101}}],)"
        R"("finding_info":{"analytic":{"name":"Virtualization process execute sensitive command",)"
        R"("type":"Rule","type_id":1,"uid":"vmescape_0001"},"attacks":[)"
        R"({"tactic":{"name":"Privilege Escalation","uid":"TA0004"},)"
        R"("technique":{"name":"Escape to Host","uid":"T1611"},"version":"16.1"},)"
        R"({"sub_technique":{"name":"Unix Shell","uid":"T1059.004"},)"
        R"("tactic":{"name":"Execution","uid":"TA0002"},)"
        R"("technique":{"name":"Command and Scripting Interpreter","uid":"T1059"},)"
        R"("version":"16.1"}],"created_time":1763679433000,)"
        R"("title":"Virtualization process execute sensitive command",)"
        R"("uid":"1339d456-526c-48e8-b706-eb1bc9bc0e8c"},"is_alert":true,)"
        R"("message":"Virtualization process execute sensitive command",)"
        R"("metadata":{"event_code":"vmescape_0001","product":{)"
        R"("feature":{"name":"vmescape_module"},"name":"vmescape-agent",)"
        R"("vendor_name":"vmescape","version":"0.1.0"},"profiles":["host","security_control"],)"
        R"("uid":"1339d456-526c-48e8-b706-eb1bc9bc0e8c","version":"1.6.0"},)"
        R"("resources":[{"name":"vm-01","role":"Actor","role_id":2,"type":"Virtual Machine"}],)"
        R"("severity":"High","severity_id":4,"status":"New","status_id":1,"time":1763679433000,)"
        R"("type_name":"Detection Finding: Create","type_uid":200401,)"
        R"("unmapped":{"attack_phase":4,"attack_tag":2,"event_category":2000,"event_type":2043,)"
        R"("forensic_info":{"escape_mode":"shell"},"severity":3}})";
    EXPECT_EQ(SDK::JsonUtils::JsonToString(Map(COMMAND_DOCUMENT)), expected);
}

TEST(OcsfMapping, HasWhatTheSchemaRequires) {
    for (const Json::Value& alarm : AllAlarms()) {
        ExpectRequired(Map(alarm));
        ExpectWhole(Map(alarm));
    }
    for (const Json::Value& alarm : OddAlarms()) {
        SCOPED_TRACE(SDK::JsonUtils::JsonToString(alarm));
        ExpectRequired(Map(alarm));
        ExpectWhole(Map(alarm));
    }
    ExpectRequired(Map(Json::Value("no document")));
}

TEST(OcsfMapping, KeepsEveryFieldOfEveryAlarm) {
    const FieldPlaces command = {
        {"event_id", "finding_info/uid"},
        {"occur_time", "time"},
        {"event_name", "finding_info/title"},
        {"event_classid", "finding_info/analytic/uid"},
        {"detect_module", "metadata/product/feature/name"},
        {"event_count", "count"},
        {"confidence", "confidence_score"},
        {"resource_info/vm_name", "resources/0/name"},
        {"forensic_info/monitor_process", "device/hypervisor"},
        {"process_info/0/process_pid", "evidences/0/process/pid"},
        {"process_info/0/process_name", "evidences/0/process/name"},
        {"process_info/0/process_cmdline", "evidences/0/process/cmd_line"},
        {"process_info/0/parent_process_pid", "evidences/0/process/parent_process/pid"},
        {"process_info/0/parent_process_name", "evidences/0/process/parent_process/name"},
    };
    FieldPlaces others = command;
    others["process_info/0/process_pid"] = "evidences/0/actor/process/pid";
    others["process_info/0/process_name"] = "evidences/0/actor/process/name";
    others["file_info/0/file_path"] = "evidences/0/file/path";
    others["forensic_info/abnormal_port"] = "evidences/0/dst_endpoint/port";
    for (const Json::Value& alarm : AllAlarms()) {
        JsonLeaves expected = LeavesOf(alarm);
        expected["occur_time"] = Json::Int64{1763679433000};
        if (expected.count("forensic_info/abnormal_port") != 0) {
            expected["forensic_info/abnormal_port"] = 4444;
        }
        const bool isCommand = alarm["event_classid"] == "vmescape_0001";
        ExpectAllKept(expected, isCommand ? command : others, "unmapped", Map(alarm));
    }
}

TEST(OcsfMapping, KeepsWhatItDoesNotUnderstandWhereItWas) {
    const FieldPlaces classOnly = {{"event_classid", "metadata/event_code"}};
    for (const Json::Value& alarm : OddAlarms()) {
        if (!alarm.empty()) {
            SCOPED_TRACE(SDK::JsonUtils::JsonToString(alarm));
            ExpectAllKept(LeavesOf(alarm), classOnly, "unmapped", Map(alarm));
        }
    }
    EXPECT_FALSE(Map("{}").isMember("unmapped"));
}

TEST(OcsfMapping, KeepsFurtherProcessesAndFiles) {
    const Json::Value finding =
        Map(R"({"event_classid":"vmescape_0002",)"
            R"("process_info":[{"process_pid":1,"process_name":"a"},{"process_pid":2}],)"
            R"("file_info":[{"file_path":"/a"},{"file_path":"/b"}]})");
    EXPECT_EQ(SDK::JsonUtils::JsonToString(finding["unmapped"]),
              R"({"file_info":[{},{"file_path":"/b"}],"process_info":[{},{"process_pid":2}]})");
}

TEST(OcsfMapping, TellsWhoTouchedWhichFile) {
    const Json::Value finding = Map(FILE_DOCUMENT);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(finding["evidences"]),
              R"([{"actor":{"process":{"name":"cat","pid":101}},"file":{"name":"shadow",)"
              R"("path":"/etc/shadow","type":"Regular File","type_id":1}}])");
    EXPECT_EQ(finding["unmapped"]["file_info"][0]["file_action"], "open");
}

TEST(OcsfMapping, NamesAFileByItsWholePathWhenThatHasNoLastName) {
    for (const char* path : {"/", "name", "/etc/"}) {
        Json::Value alarm = ParseDocument(FILE_DOCUMENT);
        alarm["file_info"][0]["file_path"] = path;
        EXPECT_EQ(Map(alarm)["evidences"][0]["file"]["name"], path);
        EXPECT_EQ(Map(alarm)["evidences"][0]["file"]["path"], path);
    }
}

TEST(OcsfMapping, TellsWhoHoldsWhichPort) {
    EXPECT_EQ(SDK::JsonUtils::JsonToString(Map(PORT_DOCUMENT)["evidences"]),
              R"([{"actor":{"process":{"name":"qemu-kvm","pid":101}},)"
              R"("dst_endpoint":{"hostname":"host-01","port":4444}}])");
}

TEST(OcsfMapping, HasTheTechniquesOfEachDetection) {
    const auto ids = [](const char* document) {
        const Json::Value finding = Map(document);
        std::string text;
        for (const Json::Value& attack : finding["finding_info"]["attacks"]) {
            const char* kind = attack.isMember("sub_technique") ? "sub_technique" : "technique";
            text += attack["tactic"]["uid"].asString() + ' ' + attack[kind]["uid"].asString() + ' ';
        }
        return text;
    };
    EXPECT_EQ(ids(COMMAND_DOCUMENT), "TA0004 T1611 TA0002 T1059.004 ");
    EXPECT_EQ(ids(FILE_DOCUMENT), "TA0004 T1611 TA0009 T1005 ");
    EXPECT_EQ(ids(PORT_DOCUMENT), "TA0004 T1611 TA0011 T1571 ");
    EXPECT_EQ(ids("{}"), "TA0004 T1611 ");
}

TEST(OcsfMapping, HasTheSchemasSeverity) {
    const auto severity = [](const char* document) {
        const Json::Value finding = Map(document);
        return std::to_string(finding["severity_id"].asInt()) + ' ' +
               finding["severity"].asString();
    };
    EXPECT_EQ(severity(R"({"severity":1})"), "2 Low");
    EXPECT_EQ(severity(R"({"severity":2})"), "3 Medium");
    EXPECT_EQ(severity(R"({"severity":3})"), "4 High");
    EXPECT_EQ(severity(R"({"severity":4})"), "5 Critical");
    EXPECT_EQ(severity(R"({"severity":0})"), "99 0");
    EXPECT_EQ(severity(R"({"severity":5})"), "99 5");
    EXPECT_EQ(severity(R"({"severity":-1})"), "0 Unknown");
    EXPECT_EQ(severity(R"({"severity":"3"})"), "0 Unknown");
    EXPECT_EQ(severity("{}"), "0 Unknown");
}

TEST(OcsfMapping, LeavesOutABootIdThatIsNotKnown) {
    const Json::Value finding = OcsfMapping::Map(ParseDocument("{}"), {"host-01", "", "0.1.0"});
    EXPECT_FALSE(finding["device"].isMember("boot_uid"));
    ExpectRequired(finding);
}

TEST(OcsfMapping, OfWhatIsNoDocumentHoldsItRaw) {
    TestSupport::FakeClock clock;
    clock.Set(1700000000);
    const Json::Value finding = Map(Json::Value("not { json"));
    EXPECT_EQ(finding["raw_data"], "not { json");
    EXPECT_EQ(finding["time"].asInt64(), 1700000000000);
    EXPECT_EQ(finding["severity_id"], 0);
    EXPECT_FALSE(finding["finding_info"].isMember("attacks"));
    EXPECT_FALSE(finding.isMember("evidences"));
    EXPECT_FALSE(finding.isMember("unmapped"));
}

}  // namespace
