#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace Agent {

/// What ParseDuration reads, for help and errors.
inline constexpr const char* DURATION_FORM =
    "a whole number of seconds, or one followed by s, m, h or d, of at most 365 days";

/// Reads a time as people write it: "90s", "10m", "24h", "7d"; a plain number is seconds.
/// @return nothing when it is none, or is zero or longer than a year
std::optional<std::chrono::seconds> ParseDuration(const std::string& text);

/// The two largest units, which is as exact as a waiting person needs: "9m58s", "6d23h", "12s".
std::string ToText(std::chrono::seconds duration);

}  // namespace Agent
