#pragma once

#include "sdk/JsonUtils.h"

#include <json/value.h>

#include <string>
#include <vector>

/// An alarm as the command detection sends it.
inline Json::Value SampleAlarm() {
    Json::Value alarm;
    alarm["event_name"] = "Virtualization process execute sensitive command";
    alarm["occur_time"] = Json::Int64(1763679433);  // 2025-11-20 22:57:13 UTC
    alarm["resource_info"]["vm_name"] = "vm-01";
    Json::Value process;
    process["process_name"] = "sh";
    process["process_pid"] = 101;
    process["process_cmdline"] = "/bin/sh -c id";
    process["parent_process_name"] = "qemu-system-x86_64";
    process["parent_process_pid"] = 100;
    alarm["process_info"].append(process);
    alarm["forensic_info"]["monitor_process"] = "qemu-system-x86_64";
    alarm["forensic_info"]["escape_mode"] = "shell";
    return alarm;
}

inline std::string SampleDocument() { return SDK::JsonUtils::JsonToString(SampleAlarm()); }

/// An alarm of each detection with all its fields, as the tests of the detections pin them down.
inline const char* const COMMAND_DOCUMENT =
    R"({"attack_phase":4,"attack_tag":2,"confidence":60,"detect_module":"vmescape_module",)"
    R"("event_category":2000,"event_classid":"vmescape_0001","event_count":1,)"
    R"("event_id":"1339d456-526c-48e8-b706-eb1bc9bc0e8c",)"
    R"("event_name":"Virtualization process execute sensitive command","event_type":2043,)"
    R"("forensic_info":{"escape_mode":"shell","monitor_process":"qemu-kvm"},)"
    R"("occur_time":1763679433,"process_info":[{"parent_process_name":"qemu-kvm",)"
    R"("parent_process_pid":100,"process_cmdline":"/bin/sh -c id","process_name":"sh",)"
    R"("process_pid":101}],"resource_info":{"vm_name":"vm-01"},"severity":3})";
inline const char* const FILE_DOCUMENT =
    R"({"attack_phase":4,"attack_tag":2,"confidence":60,"detect_module":"vmescape_module",)"
    R"("event_category":2000,"event_classid":"vmescape_0002","event_count":1,)"
    R"("event_id":"2339d456-526c-48e8-b706-eb1bc9bc0e8c",)"
    R"("event_name":"Virtualization process access sensitive file","event_type":2043,)"
    R"("file_info":[{"file_action":"open","file_path":"/etc/shadow"}],)"
    R"("forensic_info":{"monitor_process":"qemu-kvm"},)"
    R"("occur_time":1763679433,"process_info":[{"process_name":"cat","process_pid":101}],)"
    R"("resource_info":{"vm_name":"vm-01"},"severity":3})";
inline const char* const PORT_DOCUMENT =
    R"({"attack_phase":4,"attack_tag":2,"confidence":60,"detect_module":"vmescape_module",)"
    R"("event_category":2000,"event_classid":"vmescape_0003","event_count":1,)"
    R"("event_id":"3339d456-526c-48e8-b706-eb1bc9bc0e8c",)"
    R"("event_name":"Virtualization process access abnormal network port","event_type":2043,)"
    R"("forensic_info":{"abnormal_port":"4444","monitor_process":"qemu-kvm"},)"
    R"("occur_time":1763679433,"process_info":[{"process_name":"qemu-kvm",)"
    R"("process_pid":101}],"resource_info":{"vm_name":"vm-01"},"severity":3})";

inline Json::Value ParseDocument(const std::string& text) {
    Json::Value document;
    SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), document);
    return document;
}

/// The three documents.
inline std::vector<Json::Value> AllAlarms() {
    return {ParseDocument(COMMAND_DOCUMENT), ParseDocument(FILE_DOCUMENT),
            ParseDocument(PORT_DOCUMENT)};
}
