#include "outputs/WebhookWriter.h"

#include "DataCommLog.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Net/HTTPMessage.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/SHA1Engine.h>
#include <Poco/URI.h>
#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

#include <algorithm>
#include <utility>

namespace Engine {

namespace {

using Verdict = WebhookAnswer::Verdict;
using Clock = std::chrono::steady_clock;

constexpr int kDefaultBatch = 100;
constexpr int kDefaultTimeoutS = 5;

// What servers take in one request without being told to take more (nginx, client_max_body_size).
constexpr std::size_t kMaxBody = 1 << 20;

constexpr const char* kUrlKey = "report.webhook.url";

/// A URL as it is sent: no blanks, controls, or characters beyond ASCII.
bool IsGraphic(const std::string& text) {
    return std::all_of(text.begin(), text.end(),
                       [](char byte) { return byte > ' ' && byte <= '~'; });
}

bool IsThisHost(const std::string& host) {
    Poco::Net::IPAddress address;
    return host == "localhost" ||
           (Poco::Net::IPAddress::tryParse(host, address) && address.isLoopback());
}

/// How many alarms from the first on make a request that is not too long: at least one.
std::size_t CountFitting(const OutgoingAlarm* first, std::size_t most) {
    std::size_t bytes = 0;
    for (std::size_t count = 0; count < most; ++count) {
        bytes += first[count].m_text.size();
        if (bytes > kMaxBody && count > 0) {
            return count;
        }
    }
    return most;
}

}  // namespace

std::unique_ptr<WebhookWriter> WebhookWriter::Open(
    const Poco::Util::AbstractConfiguration& settings, bool json) {
    Address address;
    // The URL is not told: it may hold a token.
    std::string wrong = ParseAddress(settings.getString(kUrlKey, ""), address);
    if (!wrong.empty()) {
        SDK::LogError(GetDataCommLogger(), "%s %s", std::string(kUrlKey), wrong);
        return nullptr;
    }
    std::unique_ptr<WebhookWriter> writer(new WebhookWriter(settings, std::move(address), json));
    try {
        writer->m_session = writer->MakeSession();
        if (writer->m_address.m_secure) {
            const TlsVerifier usable(writer->m_address.m_host, writer->m_authorities);
        }
    } catch (const Poco::Exception& exception) {
        SDK::LogError(GetDataCommLogger(), "Output(webhook) is refused: %s", exception.message());
        return nullptr;
    }
    writer->WarnOfPlainSecrets();
    return writer;
}

WebhookWriter::WebhookWriter(const Poco::Util::AbstractConfiguration& settings, Address address,
                             bool json)
    : AlarmWriter("webhook"),
      m_address(std::move(address)),
      m_headersFile(settings.getString("report.webhook.headers_file", "")),
      m_authorities(settings.getString("report.webhook.ca", "")),
      m_batch(static_cast<std::size_t>(settings.getInt("report.webhook.batch", kDefaultBatch))),
      m_patience(settings.getInt("report.webhook.timeout", kDefaultTimeoutS)),
      m_json(json) {}

/// @return what is wrong with a URL, without telling it; "" when nothing is
std::string WebhookWriter::ParseAddress(const std::string& url, Address& address) {
    try {
        const Poco::URI uri(url);
        const std::string& scheme = uri.getScheme();
        if ((scheme != "http" && scheme != "https") || uri.getHost().empty() || !IsGraphic(url)) {
            return "is not understood, expected http://HOST[:PORT]/PATH or https://...";
        }
        if (!uri.getUserInfo().empty()) {
            return "holds a user or a password, expected these in report.webhook.headers_file";
        }
        address.m_secure = scheme == "https";
        address.m_host = uri.getHost();
        address.m_port = uri.getPort();
        address.m_shown = scheme + "://" + uri.getAuthority();
        // As it was written: Poco would decode and encode it, which is not always the same again.
        const std::string behind = url.substr(0, url.find('#')).substr(scheme.length() + 3);
        const std::size_t path = std::min(behind.find_first_of("/?"), behind.length());
        address.m_target = behind.substr(path);
        if (address.m_target.empty() || address.m_target.front() != '/') {
            address.m_target.insert(0, "/");
        }
        return "";
    } catch (const Poco::SyntaxException&) {
        return "is not understood, expected http://HOST[:PORT]/PATH or https://...";
    }
}

void WebhookWriter::WarnOfPlainSecrets() const {
    if (!m_address.m_secure && !m_headers.GetFields().empty() && !IsThisHost(m_address.m_host)) {
        SDK::LogWarning(GetDataCommLogger(),
                        "Output(webhook) sends the headers of %s without encryption",
                        m_headersFile);
    }
}

/// Also reads what the operator may have changed.
std::unique_ptr<WebhookSession> WebhookWriter::MakeSession() {
    SecretHeaders headers;
    headers.AddTarget(m_address.m_target);
    std::string why;
    if (!m_headersFile.empty() && !headers.Read(m_headersFile, why)) {
        throw Poco::FileException(why);
    }
    m_headers = std::move(headers);
    return std::make_unique<WebhookSession>(
        m_address.m_host, m_address.m_port,
        m_address.m_secure ? std::optional(m_authorities) : std::nullopt,
        [this] { return DeadlinePassed() || Clock::now() >= m_end; });
}

bool WebhookWriter::Prepare(std::string& why) {
    m_retry = true;
    m_session.reset();
    return Try([](WebhookSession& session) { session.Connect(); }, why);
}

/// Does something with a session that is good as far as is known, and drops it when that fails.
bool WebhookWriter::Try(const std::function<void(WebhookSession&)>& work, std::string& why) {
    m_end = Clock::now() + m_patience;
    try {
        if (m_session == nullptr) {
            m_session = MakeSession();
        }
        work(*m_session);
        return true;
    } catch (const Poco::TimeoutException&) {
        why = DeadlinePassed() ? m_address.m_shown + ": no answer before the end of the agent"
                               : Poco::format("%s: no answer within %?d s", m_address.m_shown,
                                              m_patience.count());
    } catch (const Poco::Exception& exception) {
        why = m_address.m_shown + ": " + m_headers.Hide(exception.displayText());
    }
    m_session.reset();
    return false;
}

std::size_t WebhookWriter::Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) {
    std::size_t done = 0;
    std::size_t size = alarms.size();
    while (done < alarms.size()) {
        const OutgoingAlarm* first = alarms.data() + done;
        size = CountFitting(first, std::min(size, alarms.size() - done));
        const Verdict verdict = Post(first, first + size, why);
        if (verdict == Verdict::ARRIVED) {
            done += size;
        } else if (verdict == Verdict::REFUSED && size > 1) {
            size /= 2;  // until the one alone is left for which the others were refused
        } else {
            m_retry = verdict != Verdict::REFUSED;
            return done;
        }
    }
    return done;
}

bool WebhookWriter::MustWait() const { return Clock::now() < m_notBefore; }

Verdict WebhookWriter::Post(const OutgoingAlarm* first, const OutgoingAlarm* last,
                            std::string& why) {
    if (MustWait()) {
        why = m_asked;
        return Verdict::LATER;
    }
    WebhookAnswer answer;
    if (!Try([&](WebhookSession& session) { answer = Exchange(session, first, last); }, why)) {
        return Verdict::LATER;
    }
    const Verdict verdict = WebhookAnswer::Judge(answer.m_status);
    if (verdict == Verdict::ARRIVED) {
        return verdict;
    }
    answer.m_body = m_headers.Hide(answer.m_body);
    answer.m_location = m_headers.Hide(answer.m_location);
    why = m_address.m_shown + ' ' + answer.Describe();
    if (verdict == Verdict::MISCONFIGURED) {
        m_session.reset();  // the next one is made from what the operator will have mended
    }
    if (verdict != Verdict::REFUSED) {
        m_asked = why;
        m_notBefore = Clock::now() + answer.m_wait;
    }
    return verdict;
}

WebhookAnswer WebhookWriter::Exchange(WebhookSession& session, const OutgoingAlarm* first,
                                      const OutgoingAlarm* last) const {
    using Poco::Net::HTTPRequest;
    HTTPRequest request(HTTPRequest::HTTP_POST, m_address.m_target, HTTPRequest::HTTP_1_1);
    request.setContentType(m_json ? "application/json" : "text/plain; charset=utf-8");
    request.set("User-Agent", "vmescape-agent/" VMESCAPE_VERSION);
    request.set("Idempotency-Key", IdempotencyKey(first, last));
    for (const auto& [name, value] : m_headers.GetFields()) {
        request.add(name, value);
    }
    return session.Exchange(request, MakeBody(first, last));
}

std::string WebhookWriter::MakeBody(const OutgoingAlarm* first, const OutgoingAlarm* last) const {
    std::string body = m_json ? "[" : "";
    for (const OutgoingAlarm* alarm = first; alarm != last; ++alarm) {
        const char* end = alarm + 1 == last ? "]" : ",";
        body += alarm->m_text + (m_json ? end : "") + '\n';
    }
    return body;
}

std::string WebhookWriter::IdempotencyKey(const OutgoingAlarm* first, const OutgoingAlarm* last) {
    // Not the text alone, which may be the same for two alarms; and not the document alone, which
    // may be sent in another format later.
    std::string name;
    for (const OutgoingAlarm* alarm = first; alarm != last; ++alarm) {
        name += alarm->m_document + '\n' + alarm->m_text + '\n';
    }
    Poco::SHA1Engine engine;
    return Poco::UUIDGenerator()
        .createFromName(Poco::UUID::null(), name, engine, Poco::UUID::UUID_NAME_BASED_SHA1)
        .toString();
}

}  // namespace Engine
