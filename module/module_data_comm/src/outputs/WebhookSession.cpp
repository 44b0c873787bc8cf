#include "outputs/WebhookSession.h"

#include "outputs/RetryAfter.h"

#include <Poco/Buffer.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Timestamp.h>

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cstddef>
#include <istream>
#include <ostream>
#include <utility>

namespace Engine {

namespace {

constexpr std::size_t kMaxAnswer = 65536;

constexpr const char* kRetryAfter = "Retry-After";
constexpr const char* kLocation = "Location";

}  // namespace

WebhookSession::WebhookSession(const std::string& host, std::uint16_t port,
                               std::optional<std::string> authorities, PatientSocket::GiveUp giveUp)
    : HTTPClientSession(host, port),
      m_authorities(std::move(authorities)),
      m_giveUp(std::move(giveUp)) {
    setKeepAlive(true);
}

void WebhookSession::Connect() { reconnect(); }

void WebhookSession::connect(const Poco::Net::SocketAddress& address) {
    const PatientSocket connection(address, m_giveUp);
    if (m_authorities.has_value()) {
        if (m_verifier == nullptr) {
            // Only now, as it takes a while, which would be wasted on a server that is not there.
            m_verifier = std::make_unique<TlsVerifier>(getHost(), *m_authorities);
        }
        attachSocket(m_verifier->Attach(connection));
    } else {
        attachSocket(connection);
    }
    // What was left of the connection before.
    Poco::Buffer<char> rest(0);
    drainBuffer(rest);
}

WebhookAnswer WebhookSession::Exchange(Poco::Net::HTTPRequest& request, const std::string& body) {
    if (connected() && ServerHasClosed()) {
        reset();
    }
    try {
        Send(request, body);
    } catch (const Poco::IOException& failure) {
        return ReceiveEarly(failure);
    }
    return Receive();
}

/// A server that does not want all of a request may answer, and close, before it has it.
WebhookAnswer WebhookSession::ReceiveEarly(const Poco::Exception& failure) {
    if (!connected()) {
        failure.rethrow();
    }
    clearException();
    try {
        return Receive();
    } catch (const Poco::Exception&) {
        failure.rethrow();  // that there is no answer either says less
    }
    return {};
}

void WebhookSession::Send(Poco::Net::HTTPRequest& request, const std::string& body) {
    request.setContentLength64(static_cast<std::int64_t>(body.size()));
    sendRequest(request).write(body.data(), static_cast<std::streamsize>(body.size()));
    flushRequest();
}

WebhookAnswer WebhookSession::Receive() {
    Poco::Net::HTTPResponse response;
    std::istream& stream = receiveResponse(response);
    WebhookAnswer answer;
    answer.m_status = response.getStatus();
    answer.m_wait = RetryAfter::Parse(response.get(kRetryAfter, ""), Poco::Timestamp());
    answer.m_location = response.get(kLocation, "");
    // One by one, so that what came before an error is kept.
    for (char byte = 0; answer.m_body.size() < kMaxAnswer && stream.get(byte);) {
        answer.m_body += byte;
    }
    if (!stream.eof() || networkException() != nullptr) {
        // The status counts. The rest is not waited for, and so nothing can follow it.
        reset();
    }
    return answer;
}

/// Asked before each request: the first one after the end would be lost, and be in doubt. What TLS
/// itself sends between two answers can be read as well, so that cannot be what is asked.
bool WebhookSession::ServerHasClosed() {
    tcp_info info{};
    poco_socklen_t size = sizeof(info);
    socket().impl()->getRawOption(IPPROTO_TCP, TCP_INFO, &info, size);
    return info.tcpi_state != TCP_ESTABLISHED;
}

}  // namespace Engine
