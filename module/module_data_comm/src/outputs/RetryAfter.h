#pragma once

#include <Poco/Timestamp.h>

#include <chrono>
#include <string>

namespace Engine {

/// How long a server asks to be left alone (RFC 9110, 10.2.3). Stateless: any thread may use it.
class RetryAfter {
public:
    /// What is waited at the most, whatever a server asks for: an alarm that is kept longer than
    /// that is of little use.
    static constexpr std::chrono::seconds LONGEST{300};

    /// @param value  of the header: seconds, or a date in one of the three forms of HTTP
    /// @param now    what a date is compared with
    /// @return at most LONGEST; 0 when the date has passed or the value is not understood
    static std::chrono::seconds Parse(const std::string& value, const Poco::Timestamp& now);
};

}  // namespace Engine
