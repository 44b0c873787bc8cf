#include "formats/AlarmFormatter.h"

#include "formats/EcsMapping.h"
#include "formats/OcsfMapping.h"
#include "sdk/JsonUtils.h"
#include "sdk/StrUtils.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/LocalDateTime.h>
#include <Poco/Timestamp.h>

#include <algorithm>

namespace Engine {

namespace {

// ECMA-48, select graphic rendition.
constexpr const char* kRed = "\x1b[1;31m";
constexpr const char* kBold = "\x1b[1m";
constexpr const char* kDim = "\x1b[2m";
constexpr const char* kReset = "\x1b[0m";

bool IsControl(char character) {
    return static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
}

/// A member as text that may be shown; empty when it is missing or of another kind.
std::string Show(const Json::Value& object, const char* key) {
    return SDK::StrUtils::EscapeForTerminal(SDK::JsonUtils::GetStringValue(object, key, ""));
}

std::string ShowPid(const Json::Value& object, const char* key) {
    const Json::Value& pid = object.isObject() ? object[key] : Json::Value::nullSingleton();
    return pid.isInt() ? "(" + std::to_string(pid.asInt()) + ")" : "";
}

std::string ShowTime(const Json::Value& alarm) {
    const Json::Value& time = alarm["occur_time"];
    if (!time.isInt64()) {
        return "-";
    }
    const Poco::LocalDateTime local(Poco::Timestamp::fromEpochTime(time.asInt64()));
    return Poco::DateTimeFormatter::format(local, "%Y-%m-%d %H:%M:%S");
}

/// The first element of a list of an alarm, null when there is none.
Json::Value First(const Json::Value& alarm, const char* key) {
    Json::Value list;
    return SDK::JsonUtils::GetArrayValue(alarm, key, list) && !list.empty() ? list[0]
                                                                            : Json::Value();
}

/// What happened: the detection's own word for it where there is one.
std::string ShowWhat(const Json::Value& alarm, const Json::Value& forensic) {
    const std::string mode = Show(forensic, "escape_mode");
    return mode.empty() ? Show(alarm, "event_name") : mode;
}

std::string ShowProcess(const Json::Value& process) {
    const std::string command = Show(process, "process_cmdline");
    return Show(process, "process_name") + ShowPid(process, "process_pid") +
           (command.empty() ? "" : " \"" + command + '"');
}

std::string ShowFile(const Json::Value& file) {
    const std::string path = Show(file, "file_path");
    return path.empty() ? "" : Show(file, "file_action") + " \"" + path + '"';
}

std::string ShowPort(const Json::Value& forensic) {
    const std::string port = Show(forensic, "abnormal_port");
    return port.empty() ? "" : "port " + port;
}

std::string ShowParent(const Json::Value& process) {
    const std::string name = Show(process, "parent_process_name");
    return name.empty() ? "" : "from " + name + ShowPid(process, "parent_process_pid");
}

}  // namespace

std::string AlarmFormatter::Format(const std::string& document) const {
    if (m_style == Style::JSON) {
        // Between the tokens of a document a line end is a blank like others; within one it is not
        // allowed. As a blank it can never split the document over two lines.
        std::string line = document;
        std::replace_if(line.begin(), line.end(), IsControl, ' ');
        return line;
    }
    Json::Value alarm;
    if (SDK::JsonUtils::ParseJsonStr(document.c_str(), document.length(), alarm) != 0 ||
        !alarm.isObject()) {
        alarm = document;
    }
    switch (m_style) {
        case Style::OCSF:
            return SDK::JsonUtils::JsonToString(OcsfMapping::Map(alarm, m_host));
        case Style::ECS:
            return SDK::JsonUtils::JsonToString(EcsMapping::Map(alarm, m_host));
        default:
            return alarm.isObject() ? FormatText(alarm)
                                    : SDK::StrUtils::EscapeForTerminal(document);
    }
}

std::string AlarmFormatter::FormatText(const Json::Value& alarm) const {
    Json::Value resource;
    Json::Value forensic;
    SDK::JsonUtils::GetSubobjectValue(alarm, "resource_info", resource);
    SDK::JsonUtils::GetSubobjectValue(alarm, "forensic_info", forensic);
    const Json::Value process = First(alarm, "process_info");
    std::string line = Paint(kDim, ShowTime(alarm));
    for (const std::string& part :
         {Paint(kBold, Show(resource, "vm_name")), Paint(kRed, ShowWhat(alarm, forensic)),
          ShowProcess(process), ShowFile(First(alarm, "file_info")), ShowPort(forensic),
          ShowParent(process)}) {
        // Not every detection knows everything.
        line += part.empty() ? "" : "  " + part;
    }
    return line;
}

std::string AlarmFormatter::Paint(const char* color, const std::string& text) const {
    return m_colored && !text.empty() ? color + text + kReset : text;
}

}  // namespace Engine
