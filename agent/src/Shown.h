#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Agent {

/// A time as the agent's answers show it (ISO 8601, UTC). @param seconds  since the epoch
std::string ShowTime(std::int64_t seconds);

/// A text that somebody else chose, cut behind maxLength bytes and then ended by "...": it must not
/// make an answer endless.
std::string Shorten(const std::string& text, std::size_t maxLength = 300);

}  // namespace Agent
