#include "PolicyShape.h"

#include <Poco/NumberParser.h>

#include <algorithm>
#include <cstdint>

namespace Agent {

namespace {

using Kind = PolicyField::Kind;

constexpr const char* kRulesMeaning =
    "The rules, one for each program that runs virtual machines. Rules after the 50th are ignored.";
constexpr const char* kProgramMeaning =
    "The name of a program's process, exactly as the kernel gave it at the last exec; no path and "
    "no pattern. A second rule for the same name is ignored.";
constexpr const char* kTaskMeaning =
    "Optional text for the task itself, normally left out: the JSON text of its run condition.";

std::string OddCommand(const std::string& text) {
    return text.empty() ? "an empty string names no command" : "";
}

std::string OddPath(const std::string& text) {
    return text.rfind('/', 0) == 0 ? "" : "\"" + text + "\" is no absolute path, it never matches";
}

std::string OddDirectory(const std::string& text) {
    return text.rfind('/', 0) == 0 ? "" : "\"" + text + "\" is no absolute path, it is not watched";
}

std::string OddPort(const std::string& text) {
    unsigned int port = 0;
    // Ports are compared as texts: "080" is never equal to "80".
    const bool plain = Poco::NumberParser::tryParseUnsigned(text, port) && port >= 1 &&
                       port <= UINT16_MAX && std::to_string(port) == text;
    return plain ? "" : "\"" + text + "\" is no plain number from 1 to 65535, it never matches";
}

PolicyShape Commands() {
    return {"qemu_cmd_detect_feature",
            "commands",
            "Which commands may run below virtual machines.",
            {{"qemu_cmd_detect_task", Kind::TEXT, false, kTaskMeaning},
             {"monitor_list", Kind::RULES, true, kRulesMeaning}},
            {{"action", Kind::ACTION, false,
              "true: cmdlist is an allow list, everything else is an alarm. false: it is a deny "
              "list. Default: true."},
             {"virtcmd", Kind::PROGRAM, true, kProgramMeaning},
             {"cmdlist", Kind::TEXTS, true,
              "Commands: a whole command line with single blanks, the path of an executable, or "
              "the last component of one. Entries after the 100th are ignored.",
              "commands", OddCommand}}};
}

PolicyShape Files() {
    return {"qemu_file_detect_feature",
            "files",
            "Which files in sensitive directories virtual machines may touch.",
            {{"qemu_file_detect_task", Kind::TEXT, false, kTaskMeaning},
             {"action", Kind::ACTION, false,
              "true: every filelist is an allow list, everything else in the directories is an "
              "alarm. false: each is a deny list. Default: true."},
             {"senstive_dirs", Kind::TEXTS, true,
              "(Spelt so.) Directories that are watched with everything below them, as absolute "
              "paths. Entries after the 100th are ignored.",
              "directories", OddDirectory},
             {"monitor_list", Kind::RULES, true, kRulesMeaning}},
            {{"virtmonitor", Kind::PROGRAM, true, kProgramMeaning},
             {"filelist", Kind::TEXTS, true,
              "Files by their whole real path, compared byte by byte. Entries after the 100th are "
              "ignored.",
              "files", OddPath}}};
}

PolicyShape Ports() {
    return {"qemu_port_detect_feature",
            "ports",
            "Which TCP and UDP ports virtual machines may hold.",
            {{"qemu_port_detect_task", Kind::TEXT, false, kTaskMeaning},
             {"monitor_list", Kind::RULES, true, kRulesMeaning}},
            {{"virtmonitor", Kind::PROGRAM, true, kProgramMeaning},
             {"portlist", Kind::TEXTS, true,
              "Ports that the program may hold, each as plain decimal text. Entries after the "
              "100th are ignored.",
              "ports", OddPort}}};
}

}  // namespace

const PolicyShape::Fields& PolicyShape::Envelope() {
    static const Fields fields = {
        {"module_name", Kind::MODULE, true, "The module that the policy is for."},
        {"enabled", Kind::FLAG, false, "false switches the detection off. Default: true."},
        {"hash", Kind::TEXT, false,
         "Any text. A delivery that changes neither it nor the rest changes nothing."},
        {"content", Kind::CONTENT, true, "What the feature watches, and by which rules."}};
    return fields;
}

const std::vector<PolicyShape>& PolicyShape::All() {
    static const std::vector<PolicyShape> shapes = {Commands(), Files(), Ports()};
    return shapes;
}

const PolicyShape* PolicyShape::Find(std::string_view feature) {
    const auto found = std::find_if(All().begin(), All().end(), [&](const PolicyShape& shape) {
        return shape.m_feature == feature;
    });
    return found == All().end() ? nullptr : &*found;
}

const PolicyField* PolicyShape::Find(const Fields& fields, PolicyField::Kind kind) {
    const auto found = std::find_if(fields.begin(), fields.end(),
                                    [&](const PolicyField& field) { return field.m_kind == kind; });
    return found == fields.end() ? nullptr : &*found;
}

}  // namespace Agent
