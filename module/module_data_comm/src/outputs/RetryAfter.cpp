#include "outputs/RetryAfter.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeParser.h>
#include <Poco/NumberParser.h>

#include <algorithm>
#include <cstdint>

namespace Engine {

namespace {

bool IsNumber(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(),
                                        [](char byte) { return byte >= '0' && byte <= '9'; });
}

/// @return false when it is no date
bool ParseDate(const std::string& text, Poco::DateTime& date) {
    // Poco's parser takes much for any of the forms, so the right one has to be chosen before.
    const bool isOld = text.find('-') != std::string::npos;
    const bool isOldest = text.find(',') == std::string::npos;
    const std::string& format = isOldest ? Poco::DateTimeFormat::ASCTIME_FORMAT
                                : isOld  ? Poco::DateTimeFormat::RFC850_FORMAT
                                         : Poco::DateTimeFormat::HTTP_FORMAT;
    int zone = 0;  // always GMT
    return Poco::DateTimeParser::tryParse(format, text, date, zone);
}

}  // namespace

std::chrono::seconds RetryAfter::Parse(const std::string& value, const Poco::Timestamp& now) {
    std::uint64_t number = 0;
    if (IsNumber(value)) {
        // One that is too long for a number is longer than what is waited.
        const bool fits = Poco::NumberParser::tryParseUnsigned64(value, number) &&
                          number < static_cast<std::uint64_t>(LONGEST.count());
        return fits ? std::chrono::seconds(number) : LONGEST;
    }
    Poco::DateTime date;
    if (!ParseDate(value, date)) {
        return std::chrono::seconds(0);
    }
    const std::chrono::microseconds wait(date.timestamp() - now);
    return std::clamp(std::chrono::ceil<std::chrono::seconds>(wait), std::chrono::seconds(0),
                      LONGEST);
}

}  // namespace Engine
