#include "AlarmSchema.h"

#include <string>
#include <utility>
#include <vector>

namespace Agent {

namespace {

/// A key and what its value is.
using Key = std::pair<const char*, Json::Value>;

Json::Value Described(const char* meaning) {
    Json::Value schema;
    schema["description"] = meaning;
    return schema;
}

Json::Value OfType(const char* type, const char* meaning) {
    Json::Value schema = Described(meaning);
    schema["type"] = type;
    return schema;
}

Json::Value Text(const char* meaning) { return OfType("string", meaning); }
Json::Value Whole(const char* meaning) { return OfType("integer", meaning); }

Json::Value Name(const char* meaning) {
    Json::Value schema = Text(meaning);
    schema["minLength"] = 1;
    return schema;
}

Json::Value Pattern(const char* pattern, const char* meaning) {
    Json::Value schema = Text(meaning);
    schema["pattern"] = pattern;
    return schema;
}

Json::Value Const(const Json::Value& value, const char* meaning) {
    Json::Value schema = Described(meaning);
    schema["const"] = value;
    return schema;
}

Json::Value OneOf(const std::vector<const char*>& words, const char* meaning) {
    Json::Value schema = Described(meaning);
    for (const char* word : words) {
        schema["enum"].append(word);
    }
    return schema;
}

/// An object that has all of these keys.
Json::Value Object(const std::vector<Key>& keys) {
    Json::Value schema;
    schema["type"] = "object";
    for (const auto& [key, value] : keys) {
        schema["properties"][key] = value;
        schema["required"].append(key);
    }
    return schema;
}

Json::Value Object(const std::vector<Key>& keys, const char* meaning) {
    Json::Value schema = Object(keys);
    schema["description"] = meaning;
    return schema;
}

/// A list of such objects, not empty.
Json::Value ListOf(const std::vector<Key>& keys, const char* meaning) {
    Json::Value schema = OfType("array", meaning);
    schema["items"] = Object(keys);
    schema["minItems"] = 1;
    return schema;
}

/// What every alarm has. The numbers are the codes under which receivers file the findings.
Json::Value Common() {
    return Object(
        {{"event_id",
          Pattern("^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$", "A UUID of this alarm's own.")},
         {"event_classid", OneOf({"vmescape_0001", "vmescape_0002", "vmescape_0003"},
                                 "The class: 0001 commands, 0002 files, 0003 ports.")},
         {"event_name", Text("The class in words.")},
         {"occur_time", Whole("When it was noticed, in seconds since the epoch.")},
         {"event_category", Const(2000, "Code of the category.")},
         {"event_type", Const(2043, "Code of the type.")},
         {"severity", Const(3, "Code of the severity.")},
         {"event_count", Const(1, "How many events the alarm stands for.")},
         {"attack_phase", Const(4, "Code of the phase of an attack.")},
         {"attack_tag", Const(2, "Code of the kind of attack.")},
         {"confidence", Const(60, "How sure the finding is, in percent.")},
         {"detect_module", Const("vmescape_module", "The module that noticed it.")},
         {"resource_info",
          Object({{"vm_name", Text("The virtual machine's name, from the command line of its "
                                   "process; \"Unknow\" (spelt so) when there is none.")}},
                 "What was attacked.")}});
}

Json::Value MonitorProcess() {
    return Name("The name of the monitored process, by whose rule it was judged.");
}

std::vector<Key> Process() {
    return {{"process_name", Name("The process's name.")}, {"process_pid", Whole("Its number.")}};
}

Json::Value Command() {
    std::vector<Key> process = Process();
    process.insert(
        process.end(),
        {{"process_cmdline", Text("Its arguments with single blanks between, cut after 4096 "
                                  "bytes.")},
         {"parent_process_name", Text("The name of the process that started it.")},
         {"parent_process_pid", Whole("The number of the process that started it.")}});
    return Object({{"event_name", Const("Virtualization process execute sensitive command",
                                        "The class in words.")},
                   {"process_info", ListOf(process, "The process that ran the command.")},
                   {"forensic_info",
                    Object({{"monitor_process", MonitorProcess()},
                            {"escape_mode", OneOf({"system/fork", "shell", "forbidden dir"},
                                                  "Why: the rule forbids the command, it is a "
                                                  "shell, or it lies in /tmp.")}},
                           "What it was judged by.")}});
}

Json::Value File() {
    return Object(
        {{"event_name",
          Const("Virtualization process access sensitive file", "The class in words.")},
         {"process_info", ListOf(Process(), "The process that touched the file.")},
         {"file_info", ListOf({{"file_path", Name("Its real path.")},
                               {"file_action", OneOf({"open", "access", "modify", "close"},
                                                     "What was done: access is reading.")}},
                              "The file.")},
         {"forensic_info",
          Object({{"monitor_process", MonitorProcess()}}, "What it was judged by.")}});
}

Json::Value Port() {
    return Object(
        {{"event_name",
          Const("Virtualization process access abnormal network port", "The class in words.")},
         {"process_info", ListOf(Process(), "The process that holds the port.")},
         {"forensic_info",
          Object({{"monitor_process", MonitorProcess()},
                  {"abnormal_port", Pattern("^[0-9]{1,5}$", "The port, as decimal text.")}},
                 "What it was judged by.")}});
}

}  // namespace

Json::Value AlarmSchema::Of() {
    Json::Value schema = Common();
    schema["description"] = "An alarm: a virtual machine did what its policy does not allow.";
    for (const auto& [id, rest] :
         {std::pair{"vmescape_0001", Command()}, std::pair{"vmescape_0002", File()},
          std::pair{"vmescape_0003", Port()}}) {
        Json::Value branch;
        branch["if"]["properties"]["event_classid"]["const"] = id;
        branch["then"] = rest;
        schema["allOf"].append(branch);
    }
    return schema;
}

}  // namespace Agent
