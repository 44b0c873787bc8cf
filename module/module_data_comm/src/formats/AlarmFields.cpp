#include "formats/AlarmFields.h"

#include "sdk/JsonUtils.h"
#include "sdk/StrUtils.h"
#include "sdk/TimeUtils.h"

#include <Poco/NumberParser.h>
#include <Poco/SHA1Engine.h>
#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

#include <algorithm>
#include <vector>

namespace Engine {

namespace {

using Names = std::vector<std::string>;

// The last second of the year 9999: no format has a form for what comes later.
constexpr std::int64_t kLastSecond = 253402300799;

constexpr unsigned int kLastPort = 65535;

constexpr const char* kIdPlace = "event_id";
constexpr const char* kTimePlace = "occur_time";
constexpr const char* kPortPlace = "forensic_info/abnormal_port";

Names SplitPlace(const std::string& place) {
    Names names;
    SDK::StrUtils::Split(place, "/", names);
    return names;
}

/// The value, or the first of the list that it is.
const Json::Value& Enter(const Json::Value& value) {
    return value.isArray() && !value.empty() ? value[0] : value;
}

/// What stands at a place; null when there is nothing.
const Json::Value& At(const Json::Value& root, const std::string& place) {
    const Json::Value* value = &root;
    for (const std::string& name : SplitPlace(place)) {
        const Json::Value& object = Enter(*value);
        if (!object.isObject()) {
            return Json::Value::nullSingleton();
        }
        value = &object[name];
    }
    return *value;
}

bool IsEmptyObject(const Json::Value& value) { return value.isObject() && value.empty(); }

/// Removes what stands at a place, which must be there, and what becomes empty by it.
/// @param next  the name at which this node is entered
/// @return whether the node itself is empty now
bool RemoveBelow(Json::Value& node, Names::const_iterator next, Names::const_iterator end) {
    Json::Value& object = node.isArray() ? node[0] : node;
    if (next + 1 == end || RemoveBelow(object[*next], next + 1, end)) {
        object.removeMember(*next);
    }
    // The elements of a list keep their places until all of them are empty.
    return node.isArray() ? std::all_of(node.begin(), node.end(), IsEmptyObject) : node.empty();
}

AlarmFields::Detection DetectionOf(const std::string& eventClass) {
    if (eventClass == "vmescape_0001") {
        return AlarmFields::Detection::COMMAND;
    }
    if (eventClass == "vmescape_0002") {
        return AlarmFields::Detection::FILE;
    }
    return eventClass == "vmescape_0003" ? AlarmFields::Detection::PORT
                                         : AlarmFields::Detection::OTHER;
}

/// An id that follows from a document: the same one has the same id (RFC 9562, version 5).
std::string MakeId(const Json::Value& document) {
    Poco::SHA1Engine sha1;
    return Poco::UUIDGenerator::defaultGenerator()
        .createFromName(Poco::UUID::oid(), SDK::JsonUtils::JsonToString(document), sha1)
        .toString();
}

}  // namespace

AlarmFields::AlarmFields(const Json::Value& alarm)
    : m_ownId(SDK::JsonUtils::GetStringValue(alarm, kIdPlace, "").empty() ? MakeId(alarm) : ""),
      m_rest(alarm.isObject() ? alarm : Json::Value(Json::objectValue)),
      m_detection(DetectionOf(SDK::JsonUtils::GetStringValue(alarm, "event_classid", ""))) {}

std::optional<std::string> AlarmFields::Text(const std::string& place) const {
    const Json::Value& value = At(m_rest, place);
    if (!value.isString() || value.asString().empty()) {
        return std::nullopt;
    }
    return value.asString();
}

std::optional<std::int64_t> AlarmFields::Number(const std::string& place, std::int64_t most) const {
    const Json::Value& value = At(m_rest, place);
    if (!value.isInt64() || value.asInt64() < 0 || value.asInt64() > most) {
        return std::nullopt;
    }
    return value.asInt64();
}

std::optional<std::string> AlarmFields::TakeText(const std::string& place) {
    std::optional<std::string> text = Text(place);
    if (text) {
        Remove(place);
    }
    return text;
}

std::optional<std::int64_t> AlarmFields::TakeNumber(const std::string& place, std::int64_t most) {
    const std::optional<std::int64_t> number = Number(place, most);
    if (number) {
        Remove(place);
    }
    return number;
}

void AlarmFields::MoveText(const std::string& place, Json::Value& record,
                           const std::string& target) {
    if (const std::optional<std::string> text = TakeText(place)) {
        SetAt(record, target, *text);
    }
}

void AlarmFields::MoveNumber(const std::string& place, std::int64_t most, Json::Value& record,
                             const std::string& target) {
    if (const std::optional<std::int64_t> number = TakeNumber(place, most)) {
        SetAt(record, target, Json::Int64{*number});
    }
}

std::string AlarmFields::TakeId() { return TakeText(kIdPlace).value_or(m_ownId); }

std::int64_t AlarmFields::TakeTime() {
    return TakeNumber(kTimePlace, kLastSecond).value_or(SDK::TimeUtils::GetCurrentTimestampS());
}

std::optional<int> AlarmFields::TakePort() {
    const std::string text = Text(kPortPlace).value_or("");
    unsigned int port = 0;
    if (!Poco::NumberParser::tryParseUnsigned(text, port) || port > kLastPort ||
        std::to_string(port) != text) {
        return std::nullopt;
    }
    Remove(kPortPlace);
    return static_cast<int>(port);
}

void AlarmFields::Remove(const std::string& place) {
    const Names names = SplitPlace(place);
    RemoveBelow(m_rest, names.begin(), names.end());
}

void SetAt(Json::Value& record, const std::string& place, const Json::Value& value) {
    Json::Value* at = &record;
    for (const std::string& name : SplitPlace(place)) {
        at = &(*at)[name];
    }
    *at = value;
}

}  // namespace Engine
