#include "PolicyShape.h"

#include <Poco/NumberParser.h>

#include <algorithm>
#include <cstdint>

namespace Agent {

namespace {

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

}  // namespace

const std::array<PolicyShape, 3>& PolicyShape::All() {
    static const std::array<PolicyShape, 3> shapes = {{
        {"qemu_cmd_detect_feature",
         "qemu_cmd_detect_task",
         "virtcmd",
         {"cmdlist", "commands", OddCommand},
         true,
         false,
         {nullptr, nullptr, nullptr}},
        {"qemu_file_detect_feature",
         "qemu_file_detect_task",
         "virtmonitor",
         {"filelist", "files", OddPath},
         false,
         true,
         {"senstive_dirs", "directories", OddDirectory}},
        {"qemu_port_detect_feature",
         "qemu_port_detect_task",
         "virtmonitor",
         {"portlist", "ports", OddPort},
         false,
         false,
         {nullptr, nullptr, nullptr}},
    }};
    return shapes;
}

const PolicyShape* PolicyShape::Find(std::string_view feature) {
    const auto found = std::find_if(All().begin(), All().end(), [&](const PolicyShape& shape) {
        return shape.m_feature == feature;
    });
    return found == All().end() ? nullptr : found;
}

}  // namespace Agent
