#pragma once

#include "sdk/JsonUtils.h"

#include <json/value.h>

#include <string>

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
