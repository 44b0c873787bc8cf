#pragma once

#include "outputs/PatientSocket.h"
#include "outputs/TlsVerifier.h"
#include "outputs/WebhookAnswer.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/SocketAddress.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace Engine {

/// A conversation with an HTTP server, over TLS or not. The connection is kept for what follows
/// soon, and made anew when the server has closed it.
///
/// Threads: one at a time. Every function that waits throws Poco::TimeoutException when the
/// patience has ended, and another Poco::Exception when the connection breaks or cannot be made.
class WebhookSession : public Poco::Net::HTTPClientSession {
public:
    /// @param authorities  who is trusted, as for TlsVerifier; read when it connects for the first
    ///                     time. Nothing: without TLS
    /// @param giveUp       ends all waiting
    WebhookSession(const std::string& host, std::uint16_t port,
                   std::optional<std::string> authorities, PatientSocket::GiveUp giveUp);

    /// Connects.
    void Connect();

    /// Sends a request, whose length it sets, and waits for the answer.
    WebhookAnswer Exchange(Poco::Net::HTTPRequest& request, const std::string& body);

protected:
    // Poco's names; they are called by the base class.
    void connect(const Poco::Net::SocketAddress& address) override;

private:
    void Send(Poco::Net::HTTPRequest& request, const std::string& body);
    WebhookAnswer Receive();
    WebhookAnswer ReceiveEarly(const Poco::Exception& failure);
    bool ServerHasClosed();

    const std::optional<std::string> m_authorities;
    std::unique_ptr<TlsVerifier> m_verifier;  // null: not needed so far
    const PatientSocket::GiveUp m_giveUp;
};

}  // namespace Engine
