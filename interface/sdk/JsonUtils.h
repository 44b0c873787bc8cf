#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

namespace SDK {

/// Reading and writing JSON without exceptions. A value of another type than asked for counts as
/// absent; nothing is converted. Stateless: any thread may call any function at any time.
class JsonUtils {
public:
    /// Parses the whole text. Comments and anything after the value are errors, and so is nesting
    /// deeper than 1000 levels (JsonCpp's own limit, which keeps the parser's stack bounded).
    /// @param length  in bytes; the text need not end in a zero
    /// @param out     the value; null when the text did not parse
    /// @return 0 when the text parsed, -1 when not
    static int ParseJsonStr(const char* text, std::size_t length, Json::Value& out);

    /// What becomes of a key that stands twice in one object.
    enum class DuplicateKeys { LAST_COUNTS, REFUSED };

    /// As above, and tells what is wrong.
    /// @param error  set when the result is -1: line, column and what the parser expected
    static int ParseJsonStr(const char* text, std::size_t length, Json::Value& out,
                            std::string& error,
                            DuplicateKeys duplicates = DuplicateKeys::LAST_COUNTS);

    /// @return true and out set when value is an object whose key holds an object
    static bool GetSubobjectValue(const Json::Value& value, const char* key, Json::Value& out);

    /// @return true and out set when value is an object whose key holds an array
    static bool GetArrayValue(const Json::Value& value, const char* key, Json::Value& out);

    /// @return the boolean at key, or defaultValue when there is none
    static bool GetBoolValue(const Json::Value& value, const char* key, bool defaultValue);

    /// @return the string at key, or defaultValue when there is none; NUL bytes are kept
    static std::string GetStringValue(const Json::Value& value, const char* key,
                                      const char* defaultValue);

    /// The value as text on one line, without a line end. All characters beyond ASCII are written
    /// as escapes and bytes that are not UTF-8 as U+FFFD, so the text is always valid JSON.
    static std::string JsonToString(const Json::Value& value);
};

}  // namespace SDK
