#pragma once

#include "Problem.h"

#include <json/value.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Agent {

/// The most that is read of a configuration or policy file. A policy of 50 rules of 100 commands of
/// 4096 bytes is 20 MB; anything larger is no policy.
inline constexpr std::size_t MAX_FILE_BYTES = 32UL * 1024 * 1024;

/// Reads a whole regular file.
/// @return false, and one problem more, when it is none, cannot be read or is too large
bool ReadWholeFile(const std::string& path, std::string& text, std::vector<Problem>& problems);

/// @return where the first byte stands that is no part of a character in UTF-8; the length when
///         there is none
std::size_t FindNoUtf8(const std::string& text);

/// Parses a text that must be a JSON object, in which no key stands twice.
/// @return false, and one problem more that names line and column, when it is not
bool ParseObject(const std::string& path, const std::string& text, Json::Value& object,
                 std::vector<Problem>& problems);

/// The type of a value as people call it ("a string", "nothing").
std::string DescribeType(const Json::Value& value);

}  // namespace Agent
