#include "JsonFile.h"

#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

#include <Poco/Error.h>
#include <Poco/Format.h>
#include <Poco/String.h>
#include <Poco/UTF8Encoding.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Agent {

namespace {

std::string DescribeByte(char byte) {
    return Poco::format("0x%02x", static_cast<unsigned int>(static_cast<unsigned char>(byte)));
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string& text, std::vector<Problem>& problems) {
    bool truncated = false;
    // A named pipe would hold the agent up until somebody writes into it.
    if (::access(path.c_str(), F_OK) == 0 && !SDK::FileUtils::IsFile(path)) {
        problems.push_back({path, "", "expected a regular file"});
        return false;
    }
    if (SDK::FileUtils::ReadFile(path, truncated, text, MAX_FILE_BYTES) != 0) {
        problems.push_back({path, "", "cannot be read: " + Poco::Error::getMessage(errno)});
        return false;
    }
    if (truncated) {
        problems.push_back(
            {path, "",
             "is too large, expected at most " + std::to_string(MAX_FILE_BYTES) + " bytes"});
        return false;
    }
    return true;
}

std::size_t FindNoUtf8(const std::string& text) {
    const Poco::UTF8Encoding utf8;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    for (std::size_t at = 0; at < text.size();) {
        const int length = utf8.sequenceLength(bytes + at, 1);
        if (length <= 0 || static_cast<std::size_t>(length) > text.size() - at ||
            !Poco::UTF8Encoding::isLegal(bytes + at, length)) {
            return at;
        }
        at += static_cast<std::size_t>(length);
    }
    return text.size();
}

bool ParseObject(const std::string& path, const std::string& text, Json::Value& object,
                 std::vector<Problem>& problems) {
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
        problems.push_back({path, "", "expected a JSON object, found an empty file"});
        return false;
    }
    // The library passes such bytes on, and what they name would never be found.
    if (const std::size_t bad = FindNoUtf8(text); bad < text.size()) {
        const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<long>(bad), '\n');
        problems.push_back({path, "",
                            "expected text in UTF-8, found the byte " + DescribeByte(text[bad]) +
                                " in line " + std::to_string(line)});
        return false;
    }
    // Of keys that stand twice all but one would be dropped silently.
    std::string error;
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), object, error,
                                     SDK::JsonUtils::DuplicateKeys::REFUSED) != 0) {
        // JsonCpp reports on several lines, each indented.
        problems.push_back(
            {path, "", "expected JSON: " + Poco::replace(Poco::trim(error), "\n", " ")});
        return false;
    }
    if (!object.isObject()) {
        problems.push_back({path, "", "expected a JSON object, found " + DescribeType(object)});
        return false;
    }
    return true;
}

std::string DescribeType(const Json::Value& value) {
    switch (value.type()) {
        case Json::nullValue:
            return "null";
        case Json::intValue:
        case Json::uintValue:
        case Json::realValue:
            return "a number";
        case Json::stringValue:
            return value.asString().empty() ? "an empty string" : "a string";
        case Json::booleanValue:
            return "a boolean";
        case Json::arrayValue:
            return value.empty() ? "an empty list" : "a list";
        case Json::objectValue:
            return "an object";
    }
    return "something else";
}

}  // namespace Agent
