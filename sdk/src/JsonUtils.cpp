#include "sdk/JsonUtils.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstring>
#include <exception>
#include <memory>
#include <sstream>

namespace SDK {

namespace {

std::unique_ptr<Json::CharReader> NewReader(JsonUtils::DuplicateKeys duplicates) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["allowComments"] = false;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = duplicates == JsonUtils::DuplicateKeys::REFUSED;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

std::unique_ptr<Json::StreamWriter> NewWriter() {
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "";
    builder["emitUTF8"] = false;
    return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
}

/// The member, or null when there is none.
const Json::Value* FindMember(const Json::Value& value, const char* key) {
    return value.isObject() ? value.find(key, key + std::char_traits<char>::length(key)) : nullptr;
}

bool GetMember(const Json::Value& value, const char* key, Json::ValueType type, Json::Value& out) {
    const Json::Value* member = FindMember(value, key);
    if (member == nullptr || member->type() != type) {
        return false;
    }
    out = *member;
    return true;
}

}  // namespace

int JsonUtils::ParseJsonStr(const char* text, std::size_t length, Json::Value& out) {
    std::string error;
    return ParseJsonStr(text, length, out, error);
}

int JsonUtils::ParseJsonStr(const char* text, std::size_t length, Json::Value& out,
                            std::string& error, DuplicateKeys duplicates) {
    Json::Value parsed;
    bool good = false;
    error.clear();
    // To JsonCpp a zero byte is the end of the text, whatever comes behind it.
    const void* zero = length == 0 ? nullptr : std::memchr(text, '\0', length);
    if (zero != nullptr) {
        error = "zero byte at offset " + std::to_string(static_cast<const char*>(zero) - text);
        out = Json::Value();
        return -1;
    }
    try {
        // Made anew each time: a reader keeps its last document's errors, and after the exception
        // that nesting raises, its stack.
        good = NewReader(duplicates)->parse(text, text + length, &parsed, &error);
    } catch (const std::exception& exception) {
        error = exception.what();
    }
    if (!good) {
        parsed = Json::Value();
    }
    out.swap(parsed);
    return good ? 0 : -1;
}

bool JsonUtils::GetSubobjectValue(const Json::Value& value, const char* key, Json::Value& out) {
    return GetMember(value, key, Json::objectValue, out);
}

bool JsonUtils::GetArrayValue(const Json::Value& value, const char* key, Json::Value& out) {
    return GetMember(value, key, Json::arrayValue, out);
}

bool JsonUtils::GetBoolValue(const Json::Value& value, const char* key, bool defaultValue) {
    const Json::Value* member = FindMember(value, key);
    return member != nullptr && member->isBool() ? member->asBool() : defaultValue;
}

std::string JsonUtils::GetStringValue(const Json::Value& value, const char* key,
                                      const char* defaultValue) {
    const Json::Value* member = FindMember(value, key);
    return member != nullptr && member->isString() ? member->asString() : defaultValue;
}

std::string JsonUtils::JsonToString(const Json::Value& value) {
    // A writer costs more than a document; it keeps nothing between documents.
    thread_local const std::unique_ptr<Json::StreamWriter> writer = NewWriter();
    std::ostringstream text;
    writer->write(value, &text);
    return text.str();
}

}  // namespace SDK
