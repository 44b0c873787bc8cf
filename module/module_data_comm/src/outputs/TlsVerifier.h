#pragma once

#include <Poco/Net/Context.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <openssl/x509_vfy.h>

#include <string>

namespace Engine {

/// Whom a server must prove to be over TLS, 1.2 or later: it must have a certificate, valid now and
/// for the host's name, from an authority that is trusted. What the process does with TLS elsewhere
/// is neither used nor changed.
///
/// Threads: one at a time.
class TlsVerifier {
public:
    /// @param host         name or address that the certificate must be for
    /// @param authorities  file with the certificates of those that are trusted (PEM); "" for the
    ///                     system's
    /// @throws Poco::Exception when they cannot be had
    TlsVerifier(const std::string& host, const std::string& authorities);
    ~TlsVerifier() = default;
    TlsVerifier(const TlsVerifier&) = delete;
    TlsVerifier& operator=(const TlsVerifier&) = delete;

    /// Puts TLS over a connection.
    /// @return the connection to be used from now on
    /// @throws Poco::Exception when the server does not prove who it is, with what is wrong
    Poco::Net::SecureStreamSocket Attach(const Poco::Net::StreamSocket& connection);

private:
    void ExpectHost();
    static int Note(int good, X509_STORE_CTX* store);

    const std::string m_host;
    Poco::Net::Context::Ptr m_context;
    std::string m_problem;  // of the certificate that was looked at last
};

}  // namespace Engine
