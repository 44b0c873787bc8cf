#include "Duration.h"

#include <Poco/NumberParser.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace Agent {

namespace {

struct Unit {
    char m_letter;
    std::int64_t m_seconds;
};

// The largest first.
constexpr std::array<Unit, 4> kUnits = {{{'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}}};

constexpr std::int64_t kMostS = 365 * kUnits[0].m_seconds;

// Digits alone: no sign, no blanks, and not more of them than a second's worth of a year has.
bool IsNumber(const std::string& text) {
    constexpr std::size_t kMostDigits = 9;
    return !text.empty() && text.size() <= kMostDigits &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

std::optional<std::chrono::seconds> ParseDuration(const std::string& text) {
    std::string number = text;
    std::int64_t seconds = 1;
    for (const Unit& unit : kUnits) {
        if (!text.empty() && text.back() == unit.m_letter) {
            number.pop_back();
            seconds = unit.m_seconds;
        }
    }
    if (!IsNumber(number)) {
        return std::nullopt;
    }
    seconds *= Poco::NumberParser::parse64(number);
    if (seconds < 1 || seconds > kMostS) {
        return std::nullopt;
    }
    return std::chrono::seconds(seconds);
}

std::string ToText(std::chrono::seconds duration) {
    std::int64_t left = duration.count();
    for (std::size_t i = 0; i + 1 < kUnits.size(); ++i) {
        const Unit& unit = kUnits[i];
        const Unit& next = kUnits[i + 1];
        if (left >= unit.m_seconds) {
            const std::int64_t rest = left % unit.m_seconds / next.m_seconds;
            return std::to_string(left / unit.m_seconds) + unit.m_letter +
                   (rest > 0 ? std::to_string(rest) + next.m_letter : "");
        }
    }
    return std::to_string(left) + 's';
}

}  // namespace Agent
