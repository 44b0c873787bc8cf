#include "RecordingText.h"

#include "JsonFile.h"
#include "Problem.h"
#include "sdk/JsonUtils.h"

#include <Poco/Base64Decoder.h>
#include <Poco/Base64Encoder.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/StreamCopier.h>
#include <Poco/String.h>
#include <json/value.h>

#include <algorithm>
#include <array>
#include <climits>
#include <sstream>
#include <utility>

namespace Agent {

namespace {

using Info = Engine::ProcsMessage::procInfo;
using Kind = RecordedEvent::Kind;

constexpr const char* kFormat = "vmescape";
constexpr int kVersion = 1;

// Whole numbers that every reader of JSON keeps exactly (RFC 8259, 6).
constexpr std::int64_t kMaxExact = (std::int64_t{1} << 53) - 1;
constexpr std::int64_t kMaxPort = 65535;

// By the number of the kind.
constexpr std::array<const char*, 10> kKinds = {"snapshot", "fork",  "exec",    "exit", "file",
                                                "sockets",  "watch", "unwatch", "gap",  "end"};

std::string ToBase64(const std::string& bytes) {
    std::ostringstream text;
    Poco::Base64Encoder encoder(text);
    encoder.rdbuf()->setLineLength(0);
    encoder << bytes;
    encoder.close();
    return text.str();
}

bool FromBase64(const std::string& text, std::string& bytes) {
    std::istringstream input(text);
    Poco::Base64Decoder decoder(input);
    std::ostringstream output;
    try {
        Poco::StreamCopier::copyStream(decoder, output);
    } catch (const Poco::Exception&) {
        return false;
    }
    bytes = output.str();
    // The decoder ends silently at what it does not know.
    return ToBase64(bytes) == text;
}

std::string BytesKey(const char* key) { return std::string(key) + "_b64"; }

void PutBytes(Json::Value& object, const char* key, const std::string& bytes) {
    if (FindNoUtf8(bytes) == bytes.size()) {
        object[key] = bytes;
    } else {
        object[BytesKey(key)] = ToBase64(bytes);
    }
}

/// The members of an object. What is wrong first is kept, what comes after it does not count.
class Fields {
public:
    Fields(const Json::Value& object, std::string place, std::string& wrong)
        : m_object(object), m_place(std::move(place)), m_wrong(wrong) {
        if (!object.isObject()) {
            Complain("", "an object", object);
        }
    }

    bool Has(const char* key) const { return m_object.isObject() && m_object.isMember(key); }

    const Json::Value& Get(const char* key) const {
        return m_object.isObject() ? m_object[key] : Json::Value::nullSingleton();
    }

    std::int64_t Number(const char* key, std::int64_t most) {
        const Json::Value& value = Get(key);
        if (value.isInt64() && value.asInt64() >= 0 && value.asInt64() <= most) {
            return value.asInt64();
        }
        Complain(key, Poco::format("a whole number from 0 to %?d", most), value);
        return 0;
    }

    int Int(const char* key, std::int64_t most = INT_MAX) {
        return static_cast<int>(Number(key, most));
    }

    /// @param least  bytes that it must have
    std::string Bytes(const char* key, std::size_t least) {
        const std::string encodedKey = BytesKey(key);
        std::string bytes;
        if (Has(encodedKey.c_str())) {
            const Json::Value& value = Get(encodedKey.c_str());
            if (!value.isString() || !FromBase64(value.asString(), bytes)) {
                Complain(encodedKey.c_str(), "a string in Base64", value);
            }
        } else if (const Json::Value& value = Get(key); value.isString()) {
            bytes = value.asString();
        } else if (Has(key) || least > 0) {
            Complain(key, "a string", value);
            return "";
        }
        if (bytes.size() < least) {
            Complain(key, "a string", Json::Value(""));
        }
        return bytes;
    }

    /// The value of a flag that may be missing.
    bool Flag(const char* key, bool otherwise) {
        const Json::Value& value = Get(key);
        if (Has(key) && !value.isBool()) {
            Complain(key, "a boolean", value);
        }
        return value.isBool() ? value.asBool() : otherwise;
    }

    /// A list that may be missing.
    const Json::Value& List(const char* key) {
        const Json::Value& value = Get(key);
        if (Has(key) && !value.isArray()) {
            Complain(key, "a list", value);
        }
        return value.isArray() ? value : Json::Value::nullSingleton();
    }

    Fields Object(const char* key) { return {Get(key), Pointer(m_place, key), m_wrong}; }

    Fields Entry(const char* key, Json::ArrayIndex index) {
        return {Get(key)[index], Pointer(Pointer(m_place, key), std::to_string(index)), m_wrong};
    }

    void Complain(const char* key, const std::string& expected, const Json::Value& found) {
        if (m_wrong.empty()) {
            const std::string place = *key == '\0' ? m_place : Pointer(m_place, key);
            m_wrong = (place.empty() ? "" : place + ": ") + "expected " + expected + ", found " +
                      Describe(found);
        }
    }

private:
    static std::string Describe(const Json::Value& value) {
        if (value.isNull()) {
            return "nothing";
        }
        return value.isInt64() ? value.asString() : DescribeType(value);
    }

    const Json::Value& m_object;
    const std::string m_place;
    std::string& m_wrong;
};

Json::Value ToJson(const Info& info) {
    Json::Value object;
    object["pid"] = info.m_pid;
    object["ppid"] = info.m_ppid;
    PutBytes(object, "name", info.m_name);
    for (const auto& [key, bytes] :
         {std::pair("exe", &info.m_exePath), std::pair("cmdline", &info.m_cmdline),
          std::pair("parent", &info.m_parentName)}) {
        if (!bytes->empty()) {
            PutBytes(object, key, *bytes);
        }
    }
    object["start"] = Json::UInt64{info.m_startTime};
    return object;
}

Info ReadProcess(Fields fields) {
    Info info;
    info.m_pid = fields.Int("pid");
    info.m_ppid = fields.Int("ppid");
    info.m_name = fields.Bytes("name", 0);
    info.m_exePath = fields.Bytes("exe", 0);
    info.m_cmdline = fields.Bytes("cmdline", 0);
    info.m_parentName = fields.Bytes("parent", 0);
    info.m_startTime =
        fields.Has("start") ? static_cast<std::uint64_t>(fields.Number("start", INT64_MAX)) : 0;
    return info;
}

void PutSockets(Json::Value& object, const RecordedEvent& event) {
    object["opened"] = Json::arrayValue;
    object["closed"] = Json::arrayValue;
    object["processes"] = Json::arrayValue;
    // One that holds many of them is written once.
    std::map<int, const Info*> holders;
    for (const auto& [inode, socket] : event.m_opened) {
        Json::Value& entry = object["opened"].append(Json::objectValue);
        entry["inode"] = Json::Int64{inode};
        entry["port"] = socket->m_port;
        entry["protocol"] = socket->m_protocol;
        entry["holders"] = Json::arrayValue;
        for (const auto& [pid, info] : socket->m_processes) {
            entry["holders"].append(pid);
            holders.emplace(pid, info.get());
        }
    }
    for (const long inode : event.m_closed) {
        object["closed"].append(Json::Int64{inode});
    }
    for (const auto& [pid, info] : holders) {
        object["processes"].append(ToJson(*info));
    }
}

void ReadHolders(Fields& fields, const std::map<int, Info>& processes,
                 Engine::NetProcsMessage::netProcInfo& socket) {
    for (const Json::Value& holder : fields.List("holders")) {
        const auto found = holder.isInt() ? processes.find(holder.asInt()) : processes.end();
        if (found == processes.end()) {
            fields.Complain("holders", "pids of \"processes\"", holder);
            return;
        }
        // A record of its own for each socket: the receiver may write to it.
        socket.m_processes.emplace(found->first, std::make_shared<Info>(found->second));
    }
}

void ReadSockets(Fields& fields, RecordedEvent& event) {
    std::map<int, Info> processes;
    for (Json::ArrayIndex i = 0; i < fields.List("processes").size(); ++i) {
        const Info info = ReadProcess(fields.Entry("processes", i));
        processes[info.m_pid] = info;
    }
    for (Json::ArrayIndex i = 0; i < fields.List("opened").size(); ++i) {
        Fields entry = fields.Entry("opened", i);
        auto socket = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
        socket->m_port = entry.Int("port", kMaxPort);
        socket->m_protocol = entry.Int("protocol");
        ReadHolders(entry, processes, *socket);
        event.m_opened[entry.Number("inode", INT64_MAX)] = std::move(socket);
    }
    for (const Json::Value& inode : fields.List("closed")) {
        if (!inode.isInt64()) {
            fields.Complain("closed", "inode numbers", inode);
            return;
        }
        event.m_closed.push_back(inode.asInt64());
    }
}

bool HasProcess(Kind kind) {
    return kind == Kind::SNAPSHOT || kind == Kind::FORK || kind == Kind::EXEC;
}

bool HasPid(Kind kind) { return kind == Kind::EXIT || kind == Kind::FILE; }

bool HasPath(Kind kind) {
    return kind == Kind::FILE || kind == Kind::WATCH || kind == Kind::UNWATCH;
}

bool HasReason(Kind kind) { return kind == Kind::GAP || kind == Kind::END; }

/// The members that belong to a kind of event.
void PutMembers(Json::Value& object, const RecordedEvent& event) {
    const Kind kind = event.m_kind;
    if (HasProcess(kind)) {
        object["process"] = ToJson(event.m_process);
    }
    if (HasPid(kind)) {
        object["pid"] = event.m_process.m_pid;
    }
    if (HasPath(kind)) {
        PutBytes(object, "path", event.m_path);
    }
    if (HasReason(kind)) {
        object["reason"] = event.m_reason;
    }
    if (kind == Kind::SNAPSHOT) {
        object["left"] = Json::UInt64{event.m_left};
    } else if (kind == Kind::FILE) {
        object["mask"] = event.m_mask;
        object["regular"] = event.m_regular;
    } else if (kind == Kind::SOCKETS) {
        PutSockets(object, event);
    } else if (kind == Kind::WATCH) {
        PutBytes(object, "real", event.m_realPath);
    } else if (kind == Kind::GAP) {
        object["lost"] = Json::UInt64{event.m_lost};
    }
}

void ReadMembers(Fields& fields, RecordedEvent& event) {
    const Kind kind = event.m_kind;
    if (HasProcess(kind)) {
        event.m_process = ReadProcess(fields.Object("process"));
    }
    if (HasPid(kind)) {
        event.m_process.m_pid = fields.Int("pid");
    }
    if (HasPath(kind)) {
        event.m_path = fields.Bytes("path", 1);
    }
    if (HasReason(kind)) {
        event.m_reason = fields.Bytes("reason", 0);
    }
    if (kind == Kind::SNAPSHOT) {
        event.m_left = static_cast<std::uint64_t>(fields.Number("left", kMaxExact));
    } else if (kind == Kind::FILE) {
        event.m_mask = fields.Int("mask");
        event.m_regular = fields.Flag("regular", true);
    } else if (kind == Kind::SOCKETS) {
        ReadSockets(fields, event);
    } else if (kind == Kind::WATCH) {
        event.m_realPath = fields.Bytes("real", 0);
    } else if (kind == Kind::GAP) {
        event.m_lost = static_cast<std::uint64_t>(fields.Number("lost", kMaxExact));
    }
}

std::string Parse(const std::string& line, Json::Value& value) {
    std::string error;
    if (const std::size_t bad = FindNoUtf8(line); bad < line.size()) {
        return "expected text in UTF-8, found another byte at offset " + std::to_string(bad);
    }
    if (SDK::JsonUtils::ParseJsonStr(line.c_str(), line.length(), value, error) != 0) {
        // JsonCpp reports on several lines, each indented.
        return "expected JSON: " + Poco::replace(Poco::trim(error), "\n", " ");
    }
    return "";
}

}  // namespace

std::string RecordingText::Name(RecordedEvent::Kind kind) {
    return kKinds.at(static_cast<std::size_t>(kind));
}

std::string RecordingText::Write(const RecordingHeader& header) {
    Json::Value object;
    object["recording"] = kFormat;
    object["version"] = kVersion;
    PutBytes(object, "host", header.m_host);
    object["agent"] = header.m_agent;
    object["started"] = header.m_started;
    if (header.m_hasShells) {
        PutBytes(object, "shells", header.m_shells);
    }
    return SDK::JsonUtils::JsonToString(object);
}

std::string RecordingText::Write(const RecordedEvent& event) {
    Json::Value object;
    object["at"] = Json::Int64{event.m_at};
    object["event"] = Name(event.m_kind);
    PutMembers(object, event);
    return SDK::JsonUtils::JsonToString(object);
}

std::string RecordingText::Read(const std::string& line, RecordingHeader& header) {
    Json::Value value;
    std::string wrong = Parse(line, value);
    if (!wrong.empty()) {
        return wrong;
    }
    Fields fields(value, "", wrong);
    if (fields.Get("recording") != kFormat) {
        fields.Complain("recording", Poco::format("\"%s\"", std::string(kFormat)),
                        fields.Get("recording"));
    }
    if (fields.Get("version") != kVersion) {
        fields.Complain("version", std::to_string(kVersion), fields.Get("version"));
    }
    header.m_host = fields.Bytes("host", 0);
    header.m_agent = fields.Bytes("agent", 0);
    header.m_started = fields.Bytes("started", 0);
    header.m_hasShells = fields.Has("shells") || fields.Has(BytesKey("shells").c_str());
    header.m_shells = fields.Bytes("shells", 0);
    return wrong;
}

std::string RecordingText::Read(const std::string& line, RecordedEvent& event) {
    Json::Value value;
    std::string wrong = Parse(line, value);
    if (!wrong.empty()) {
        return wrong;
    }
    event = RecordedEvent();
    Fields fields(value, "", wrong);
    event.m_at = fields.Number("at", kMaxExact);
    const std::string name = SDK::JsonUtils::GetStringValue(value, "event", "");
    const auto kind = std::find(kKinds.begin(), kKinds.end(), name);
    if (kind == kKinds.end()) {
        std::string all;
        for (const char* known : kKinds) {
            all += std::string(all.empty() ? "" : ", ") + known;
        }
        fields.Complain("event", "one of " + all, fields.Get("event"));
        return wrong;
    }
    event.m_kind = static_cast<Kind>(kind - kKinds.begin());
    ReadMembers(fields, event);
    return wrong;
}

}  // namespace Agent
