#include "formats/EcsMapping.h"

#include "formats/AlarmFields.h"
#include "formats/AttackTechnique.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <utility>

namespace Engine {

namespace {

using Detection = AlarmFields::Detection;

constexpr std::int64_t kMostLong = std::numeric_limits<std::int64_t>::max();  // "long"

// What a document calls a machine without a name.
constexpr const char* kNameless = "Unknow";

// Texts of the document and where they go.
constexpr std::pair<const char*, const char*> kTexts[] = {
    {"event_classid", "event/code"},
    {"detect_module", "event/module"},
    {"forensic_info/escape_mode", "event/reason"},
    {"process_info/process_name", "process/name"},
    {"process_info/process_cmdline", "process/command_line"},
    {"process_info/parent_process_name", "process/parent/name"},
};

// Numbers of the document and where they go.
constexpr std::pair<const char*, const char*> kNumbers[] = {
    {"severity", "event/severity"},
    {"process_info/process_pid", "process/pid"},
    {"process_info/parent_process_pid", "process/parent/pid"},
};

/// What is the same in all events of a host.
Json::Value MakeEvent(const HostIdentity& host) {
    Json::Value record;
    record["ecs"]["version"] = EcsMapping::VERSION;
    record["event"]["kind"] = "alert";
    record["event"]["dataset"] = "vmescape.alarm";
    record["event"]["provider"] = "vmescape-agent";
    record["agent"]["type"] = "vmescape-agent";
    record["agent"]["version"] = host.m_agentVersion;
    record["host"]["name"] = host.m_name;
    record["host"]["hostname"] = host.m_name;
    record["host"]["os"]["type"] = "linux";
    if (!host.m_bootId.empty()) {
        record["host"]["boot"]["id"] = host.m_bootId;
    }
    return record;
}

std::string FormatTime(std::int64_t seconds) {
    return Poco::DateTimeFormatter::format(Poco::Timestamp::fromEpochTime(seconds),
                                           Poco::DateTimeFormat::ISO8601_FORMAT);
}

/// Categories, types and action. Of the words that the schema allows, "info" goes with
/// "intrusion_detection" and the other ones with the second category.
void AddKind(AlarmFields& fields, Json::Value& record) {
    Json::Value& event = record["event"];
    event["category"].append("intrusion_detection");
    event["type"].append("info");
    switch (fields.GetDetection()) {
        case Detection::COMMAND:
            event["category"].append("process");
            event["type"].append("start");
            event["action"] = "process-started";
            break;
        case Detection::FILE:
            event["category"].append("file");
            event["type"].append(fields.Text("file_info/file_action") == "modify" ? "change"
                                                                                  : "access");
            fields.MoveText("file_info/file_action", record, "event/action");
            break;
        case Detection::PORT:
            event["category"].append("network");
            event["action"] = "port-open";
            break;
        case Detection::OTHER:
            break;
    }
}

std::string Reference(std::string id) {
    std::replace(id.begin(), id.end(), '.', '/');
    return "https://attack.mitre.org/techniques/" + id + '/';
}

void AddTechnique(const char* id, const char* name, Json::Value& techniques) {
    techniques["id"].append(id);
    techniques["name"].append(name);
    techniques["reference"].append(Reference(id));
}

void AddThreat(const AlarmFields& fields, Json::Value& record) {
    Json::Value& threat = record["threat"];
    threat["framework"] = AttackTechnique::FRAMEWORK;
    for (const AttackTechnique& technique : TechniquesOf(fields)) {
        threat["tactic"]["id"].append(technique.m_tacticId);
        threat["tactic"]["name"].append(technique.m_tactic);
        AddTechnique(technique.m_id, technique.m_name, threat["technique"]);
        if (*technique.m_subId != '\0') {
            AddTechnique(technique.m_subId, technique.m_subName,
                         threat["technique"]["subtechnique"]);
        }
    }
}

/// Identity, time, and the rule behind it.
void AddWhat(AlarmFields& fields, Json::Value& record) {
    record["@timestamp"] = FormatTime(fields.TakeTime());
    record["event"]["id"] = fields.TakeId();
    record["message"] = fields.TakeText("event_name").value_or("Alarm without a name");
    record["rule"]["name"] = record["message"];
    if (const std::optional<std::string> eventClass = fields.Text("event_classid")) {
        record["rule"]["id"] = *eventClass;
    }
}

void AddFile(AlarmFields& fields, Json::Value& record) {
    const std::optional<std::string> path = fields.TakeText("file_info/file_path");
    if (!path) {
        return;
    }
    record["file"]["path"] = *path;
    const std::size_t slash = path->rfind('/');
    if (slash != std::string::npos && slash + 1 < path->length()) {
        record["file"]["name"] = path->substr(slash + 1);
        record["file"]["directory"] = path->substr(0, std::max<std::size_t>(slash, 1));
    }
}

/// Nothing is connected yet: the port is the one that others would connect to.
void AddPort(AlarmFields& fields, Json::Value& record) {
    if (const std::optional<int> port = fields.TakePort()) {
        record["server"]["port"] = *port;
        record["destination"]["port"] = *port;
    }
}

/// The schema has no place for a machine that is not a host of its own; all that are concerned can
/// be searched for together.
void AddRelated(const AlarmFields& fields, const HostIdentity& host, Json::Value& record) {
    Json::Value& hosts = record["related"]["hosts"];
    hosts.append(host.m_name);
    const std::optional<std::string> machine = fields.Text("resource_info/vm_name");
    if (machine && *machine != kNameless && *machine != host.m_name) {
        hosts.append(*machine);
    }
}

}  // namespace

Json::Value EcsMapping::Map(const Json::Value& alarm, const HostIdentity& host) {
    AlarmFields fields(alarm);
    Json::Value record = MakeEvent(host);
    if (alarm.isObject()) {
        AddThreat(fields, record);
    } else {
        record["event"]["original"] = alarm;
    }
    AddKind(fields, record);
    AddWhat(fields, record);
    AddFile(fields, record);
    AddPort(fields, record);
    AddRelated(fields, host, record);
    for (const auto& [place, target] : kTexts) {
        fields.MoveText(place, record, target);
    }
    for (const auto& [place, target] : kNumbers) {
        fields.MoveNumber(place, kMostLong, record, target);
    }
    if (!fields.Rest().empty()) {
        record["vmescape"] = fields.Rest();
    }
    return record;
}

}  // namespace Engine
