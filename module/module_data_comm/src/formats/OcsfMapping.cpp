#include "formats/OcsfMapping.h"

#include "formats/AlarmFields.h"
#include "formats/AttackTechnique.h"

#include <iterator>
#include <limits>
#include <optional>
#include <string>

namespace Engine {

namespace {

using Detection = AlarmFields::Detection;

// Codes of the schema, https://schema.ocsf.io/1.6.0/classes/detection_finding.
constexpr int kFindings = 2;
constexpr int kDetectionFinding = 2004;
constexpr int kCreate = 1;
constexpr int kNew = 1;
constexpr int kObserved = 3;     // neither allowed nor denied: the agent only looks on
constexpr int kAlert = 19;       // found to be a threat and told, not blocked
constexpr int kRule = 1;         // kind of analytic: what a policy lists
constexpr int kRegularFile = 1;  // the file detection judges no others
constexpr int kServer = 1;       // what a host of virtual machines is
constexpr int kLinux = 200;
constexpr int kActor = 2;  // the machine's role: what happened came out of it
constexpr int kUnknown = 0;
constexpr int kOther = 99;

constexpr std::int64_t kMsPerSecond = 1000;
constexpr std::int64_t kMostInteger = std::numeric_limits<std::int32_t>::max();  // integer_t

/// The documents' severity as the schema's. The documents always say 3, the third of four: a guest
/// on the host endangers all guests, but a confidence of 60 is no certainty.
struct Severity {
    int m_id;
    const char* m_caption;
};
constexpr Severity kSeverities[] = {{2, "Low"}, {3, "Medium"}, {4, "High"}, {5, "Critical"}};

/// What is the same in all findings.
Json::Value MakeFinding() {
    Json::Value finding;
    finding["category_uid"] = kFindings;
    finding["category_name"] = "Findings";
    finding["class_uid"] = kDetectionFinding;
    finding["class_name"] = "Detection Finding";
    finding["activity_id"] = kCreate;
    finding["activity_name"] = "Create";
    finding["type_uid"] = kDetectionFinding * 100 + kCreate;
    finding["type_name"] = "Detection Finding: Create";
    finding["status_id"] = kNew;
    finding["status"] = "New";
    finding["action_id"] = kObserved;
    finding["action"] = "Observed";
    finding["disposition_id"] = kAlert;
    finding["disposition"] = "Alert";
    finding["is_alert"] = true;
    return finding;
}

Json::Value MakeMetadata(const HostIdentity& host) {
    Json::Value metadata;
    metadata["version"] = OcsfMapping::VERSION;
    metadata["profiles"].append("host");              // "device"
    metadata["profiles"].append("security_control");  // "action", "disposition"
    Json::Value& product = metadata["product"];
    product["name"] = "vmescape-agent";
    product["vendor_name"] = "vmescape";
    product["version"] = host.m_agentVersion;
    return metadata;
}

Json::Value MakeDevice(const HostIdentity& host) {
    Json::Value device;
    device["type_id"] = kServer;
    device["type"] = "Server";
    device["hostname"] = host.m_name;
    device["os"]["name"] = "Linux";
    device["os"]["type_id"] = kLinux;
    device["os"]["type"] = "Linux";
    if (!host.m_bootId.empty()) {
        device["boot_uid"] = host.m_bootId;
    }
    return device;
}

Json::Value MakeAttack(const AttackTechnique& technique) {
    const auto named = [](const char* id, const char* name) {
        Json::Value object;
        object["uid"] = id;
        object["name"] = name;
        return object;
    };
    Json::Value attack;
    attack["version"] = AttackTechnique::VERSION;
    attack["tactic"] = named(technique.m_tacticId, technique.m_tactic);
    attack["technique"] = named(technique.m_id, technique.m_name);
    if (*technique.m_subId != '\0') {
        attack["sub_technique"] = named(technique.m_subId, technique.m_subName);
    }
    return attack;
}

/// The number itself stays in the document's rest: the schema keeps only its own scale.
void AddSeverity(const AlarmFields& fields, Json::Value& finding) {
    const std::optional<std::int64_t> number = fields.Number("severity", kMostInteger);
    if (!number) {
        finding["severity_id"] = kUnknown;
        finding["severity"] = "Unknown";
    } else if (*number < 1 || *number > std::int64_t{std::size(kSeverities)}) {
        finding["severity_id"] = kOther;
        finding["severity"] = std::to_string(*number);
    } else {
        const Severity& severity = kSeverities[*number - 1];
        finding["severity_id"] = severity.m_id;
        finding["severity"] = severity.m_caption;
    }
}

/// What the finding is: identity, time, the rule behind it.
void AddWhat(AlarmFields& fields, Json::Value& finding) {
    Json::Value& info = finding["finding_info"];
    info["uid"] = fields.TakeId();
    finding["metadata"]["uid"] = info["uid"];
    finding["time"] = Json::Int64{fields.TakeTime() * kMsPerSecond};
    info["created_time"] = finding["time"];
    info["title"] = fields.TakeText("event_name").value_or("Alarm without a name");
    finding["message"] = info["title"];
    if (const std::optional<std::string> eventClass = fields.TakeText("event_classid")) {
        finding["metadata"]["event_code"] = *eventClass;
        info["analytic"]["uid"] = *eventClass;
        info["analytic"]["name"] = info["title"];
        info["analytic"]["type_id"] = kRule;
        info["analytic"]["type"] = "Rule";
    }
    fields.MoveText("detect_module", finding, "metadata/product/feature/name");
    fields.MoveNumber("event_count", kMostInteger, finding, "count");
    fields.MoveNumber("confidence", kMostInteger, finding, "confidence_score");
}

/// A process object; null without a pid, for a name alone identifies none.
/// @param prefix  of the document's fields
Json::Value TakeProcess(AlarmFields& fields, const std::string& prefix) {
    Json::Value process;
    fields.MoveNumber(prefix + "_pid", kMostInteger, process, "pid");
    if (!process.isNull()) {
        fields.MoveText(prefix + "_name", process, "name");
        fields.MoveText(prefix + "_cmdline", process, "cmd_line");
    }
    return process;
}

Json::Value TakeProcessAndParent(AlarmFields& fields) {
    Json::Value process = TakeProcess(fields, "process_info/process");
    if (!process.isNull()) {
        const Json::Value parent = TakeProcess(fields, "process_info/parent_process");
        if (!parent.isNull()) {
            process["parent_process"] = parent;
        }
    }
    return process;
}

Json::Value TakeFile(AlarmFields& fields) {
    Json::Value file;
    if (const std::optional<std::string> path = fields.TakeText("file_info/file_path")) {
        const std::size_t slash = path->rfind('/');
        const bool named = slash != std::string::npos && slash + 1 < path->length();
        file["path"] = *path;
        file["name"] = named ? path->substr(slash + 1) : *path;
        file["type_id"] = kRegularFile;
        file["type"] = "Regular File";
    }
    return file;
}

/// A started process is what a command alarm is about. In the others it is who did something.
void AddEvidence(AlarmFields& fields, const HostIdentity& host, Json::Value& finding) {
    const Detection detection = fields.GetDetection();
    const bool isActor = detection == Detection::FILE || detection == Detection::PORT;
    Json::Value evidence;
    if (const Json::Value process = TakeProcessAndParent(fields); !process.isNull()) {
        SetAt(evidence, isActor ? "actor/process" : "process", process);
    }
    if (const Json::Value file = TakeFile(fields); !file.isNull()) {
        evidence["file"] = file;
    }
    if (const std::optional<int> port = fields.TakePort()) {
        evidence["dst_endpoint"]["port"] = *port;
        evidence["dst_endpoint"]["hostname"] = host.m_name;
    }
    if (!evidence.isNull()) {
        finding["evidences"].append(evidence);
    }
}

/// The virtual machine, and the program that runs it.
void AddMachine(AlarmFields& fields, Json::Value& finding) {
    if (const std::optional<std::string> name = fields.TakeText("resource_info/vm_name")) {
        Json::Value& machine = finding["resources"].append(Json::objectValue);
        machine["name"] = *name;
        machine["type"] = "Virtual Machine";
        machine["role_id"] = kActor;
        machine["role"] = "Actor";
    }
    fields.MoveText("forensic_info/monitor_process", finding, "device/hypervisor");
}

}  // namespace

Json::Value OcsfMapping::Map(const Json::Value& alarm, const HostIdentity& host) {
    AlarmFields fields(alarm);
    Json::Value finding = MakeFinding();
    finding["metadata"] = MakeMetadata(host);
    finding["device"] = MakeDevice(host);
    if (alarm.isObject()) {
        for (const AttackTechnique& technique : TechniquesOf(fields)) {
            finding["finding_info"]["attacks"].append(MakeAttack(technique));
        }
    } else {
        finding["raw_data"] = alarm;
    }
    AddSeverity(fields, finding);
    AddWhat(fields, finding);
    AddEvidence(fields, host, finding);
    AddMachine(fields, finding);
    if (!fields.Rest().empty()) {
        finding["unmapped"] = fields.Rest();
    }
    return finding;
}

}  // namespace Engine
