#pragma once

#include "AlarmWriter.h"
#include "outputs/SecretHeaders.h"
#include "outputs/WebhookAnswer.h"
#include "outputs/WebhookSession.h"

#include <Poco/Util/AbstractConfiguration.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Engine {

/// Posts alarms to an HTTP server, over TLS or not: documents as a JSON array, other formats as
/// lines of text.
///
/// All alarms of a request have arrived when the server answers 2xx. Each request carries an
/// Idempotency-Key that is the same when the same alarms are sent again. A batch that the server
/// refuses is sent in smaller pieces, so that nothing is given up but what is refused alone.
/// What the server may take later is kept, and so it is while the server, the address or the
/// credentials are wrong. When the server says how long it wants to be left alone, it is.
///
/// Neither the headers of the operator's file nor the path of the address, which may hold a token,
/// are told to anybody but the server.
class WebhookWriter : public AlarmWriter {
public:
    /// @param settings  "report.webhook.url", ".headers_file", ".ca", ".batch" and ".timeout"
    /// @param json      whether alarms come as JSON documents
    /// @return null when a setting is wrong, or a file that it names (logged)
    static std::unique_ptr<WebhookWriter> Open(const Poco::Util::AbstractConfiguration& settings,
                                               bool json);

    /// Reads the files anew and connects; nothing is sent.
    bool Prepare(std::string& why) override;

    std::size_t BatchSize() const override { return m_batch; }
    std::size_t Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) override;
    bool ShouldRetry() const override { return m_retry; }
    bool CanBeProbed() const override { return true; }

    /// What makes a request known when it comes again: a name-based UUID over all alarms in it.
    static std::string IdempotencyKey(const OutgoingAlarm* first, const OutgoingAlarm* last);

private:
    /// Where requests go.
    struct Address {
        bool m_secure = false;
        std::string m_host;
        std::uint16_t m_port = 0;
        std::string m_shown;   // scheme, host and port
        std::string m_target;  // path and query
    };

    WebhookWriter(const Poco::Util::AbstractConfiguration& settings, Address address, bool json);

    static std::string ParseAddress(const std::string& url, Address& address);
    void WarnOfPlainSecrets() const;
    std::unique_ptr<WebhookSession> MakeSession();
    bool Try(const std::function<void(WebhookSession&)>& work, std::string& why);
    bool MustWait() const;
    WebhookAnswer::Verdict Post(const OutgoingAlarm* first, const OutgoingAlarm* last,
                                std::string& why);
    WebhookAnswer Exchange(WebhookSession& session, const OutgoingAlarm* first,
                           const OutgoingAlarm* last) const;
    std::string MakeBody(const OutgoingAlarm* first, const OutgoingAlarm* last) const;

    const Address m_address;
    const std::string m_headersFile;
    const std::string m_authorities;
    const std::size_t m_batch;
    const std::chrono::seconds m_patience;
    const bool m_json;

    SecretHeaders m_headers;
    TimePoint m_end;        // of the request that is under way
    TimePoint m_notBefore;  // the server wants to be left alone until then
    std::string m_asked;    // what it said then
    bool m_retry = true;    // the last failure may pass
    // Null: after a failure. It asks the writer how long it may wait, so it is the first to go.
    std::unique_ptr<WebhookSession> m_session;
};

}  // namespace Engine
