#include "Shown.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Timestamp.h>

namespace Agent {

std::string ShowTime(std::int64_t seconds) {
    return Poco::DateTimeFormatter::format(Poco::Timestamp::fromEpochTime(seconds),
                                           "%Y-%m-%dT%H:%M:%SZ");
}

std::string Shorten(const std::string& text, std::size_t maxLength) {
    return text.length() <= maxLength ? text : text.substr(0, maxLength) + "...";
}

}  // namespace Agent
