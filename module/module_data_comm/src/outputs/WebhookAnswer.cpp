#include "outputs/WebhookAnswer.h"

#include "sdk/StrUtils.h"

#include <Poco/Format.h>
#include <Poco/Net/HTTPResponse.h>

#include <algorithm>
#include <array>
#include <cstddef>

namespace Engine {

namespace {

constexpr std::size_t kShownBytes = 200;

constexpr int kSuccess = 200;
constexpr int kRedirect = 300;
constexpr int kClientError = 400;
constexpr int kServerError = 500;

// Of RFC 9110, 15.5, and where others are named.
constexpr std::array kLater = {
    408,  // too slow
    425,  // too early (RFC 8470)
    429,  // too many (RFC 6585)
};
constexpr std::array kMisconfigured = {
    401,  // the credentials
    402,  // the account
    403,  // the credentials
    404,  // the address
    405,  // the address
    407,  // a proxy
    410,  // the address
    415,  // the format
    421,  // the address
    426,  // the protocol
    431,  // the headers (RFC 6585)
};

template <typename List>
bool Holds(const List& list, int status) {
    return std::find(list.begin(), list.end(), status) != list.end();
}

std::string Start(const std::string& text) {
    return SDK::StrUtils::EscapeForTerminal(text.substr(0, kShownBytes)) +
           (text.length() > kShownBytes ? "..." : "");
}

bool IsRedirect(int status) { return status >= kRedirect && status < kClientError; }

}  // namespace

WebhookAnswer::Verdict WebhookAnswer::Judge(int status) {
    if (status >= kSuccess && status < kRedirect) {
        return Verdict::ARRIVED;
    }
    if (IsRedirect(status) || Holds(kMisconfigured, status)) {
        return Verdict::MISCONFIGURED;
    }
    const bool refused = status >= kClientError && status < kServerError && !Holds(kLater, status);
    return refused ? Verdict::REFUSED : Verdict::LATER;
}

std::string WebhookAnswer::Describe() const {
    using Poco::Net::HTTPResponse;
    // Not the server's own words for its status, which may be any.
    std::string text = Poco::format(
        "answered %d %s", m_status,
        HTTPResponse::getReasonForStatus(static_cast<HTTPResponse::HTTPStatus>(m_status)));
    if (IsRedirect(m_status)) {
        text += ", redirects are not followed";
        text += m_location.empty() ? "" : " (to " + Start(m_location) + ')';
    }
    if (m_wait.count() > 0) {
        text += Poco::format(", asks to wait for %?d s", m_wait.count());
    }
    return m_body.empty() ? text : text + ": \"" + Start(m_body) + '"';
}

}  // namespace Engine
