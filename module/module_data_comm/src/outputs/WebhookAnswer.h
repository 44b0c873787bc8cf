#pragma once

#include <chrono>
#include <string>

namespace Engine {

/// What an HTTP server says to a request that brings alarms.
struct WebhookAnswer {
    enum class Verdict {
        ARRIVED,        ///< the server has them
        LATER,          ///< it may take them another time
        MISCONFIGURED,  ///< it may take them when the operator has mended something
        REFUSED,        ///< it never will
    };

    /// What a status means for the alarms. Only what speaks of them is a refusal: nothing else is
    /// reason to give them up.
    static Verdict Judge(int status);

    /// The answer for people: escaped, and with the start of the body only.
    std::string Describe() const;

    int m_status = 0;
    std::chrono::seconds m_wait{0};  ///< how long it asks to be left alone
    std::string m_location;          ///< of a redirect
    std::string m_body;              ///< its start, as it came
};

}  // namespace Engine
