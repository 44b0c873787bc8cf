#include "outputs/TlsVerifier.h"

#include "outputs/GuardedFile.h"

#include <Poco/Crypto/OpenSSLInitializer.h>
#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SSLException.h>

#include <openssl/ssl.h>

namespace Engine {

namespace {

using Poco::Net::Context;

/// Where a context keeps its verifier.
int VerifierIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

bool IsAddress(const std::string& host) {
    Poco::Net::IPAddress address;
    return Poco::Net::IPAddress::tryParse(host, address);
}

Context::Params Parameters(const std::string& authorities) {
    Context::Params parameters;
    parameters.caLocation = authorities;
    parameters.loadDefaultCAs = authorities.empty();
    // Not the milder one, which takes any certificate of a server on this host.
    parameters.verificationMode = Context::VERIFY_STRICT;
    parameters.cipherList = "HIGH:!aNULL";
    return parameters;
}

Context::Ptr MakeContext(const std::string& authorities) {
    // Once for the process: the last context that goes would otherwise take OpenSSL's state with
    // it.
    static const Poco::Crypto::OpenSSLInitializer library;
    if (!authorities.empty()) {
        // Whoever may write them may let any server pass.
        const std::string wrong = GuardedFile::WhyNot(authorities, GuardedFile::Others::MAY_READ);
        if (!wrong.empty()) {
            throw Poco::FileException(wrong);
        }
    }
    try {
        return new Context(Context::TLS_CLIENT_USE, Parameters(authorities));
    } catch (const Poco::Net::SSLException& exception) {
        throw Poco::Net::SSLContextException(
            (authorities.empty() ? std::string("the system's authorities") : authorities) +
            ": expected certificates in PEM: " + exception.message());
    }
}

}  // namespace

TlsVerifier::TlsVerifier(const std::string& host, const std::string& authorities)
    : m_host(host), m_context(MakeContext(authorities)) {
    m_context->requireMinimumProtocol(Context::PROTO_TLSV1_2);
    ExpectHost();
}

/// Has OpenSSL itself look at the name, and say what it finds.
void TlsVerifier::ExpectHost() {
    SSL_CTX* context = m_context->sslContext();
    X509_VERIFY_PARAM* parameters = SSL_CTX_get0_param(context);
    const int done = IsAddress(m_host)
                         ? X509_VERIFY_PARAM_set1_ip_asc(parameters, m_host.c_str())
                         : X509_VERIFY_PARAM_set1_host(parameters, m_host.c_str(), m_host.length());
    if (done != 1 || SSL_CTX_set_ex_data(context, VerifierIndex(), this) != 1) {
        throw Poco::Net::SSLContextException("cannot be made to expect " + m_host);
    }
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, &TlsVerifier::Note);
}

int TlsVerifier::Note(int good, X509_STORE_CTX* store) {
    if (good == 0) {
        const int index = SSL_get_ex_data_X509_STORE_CTX_idx();
        const auto* ssl = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, index));
        const SSL_CTX* context = SSL_get_SSL_CTX(ssl);
        auto* verifier = static_cast<TlsVerifier*>(SSL_CTX_get_ex_data(context, VerifierIndex()));
        verifier->m_problem = X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
    }
    return good;
}

Poco::Net::SecureStreamSocket TlsVerifier::Attach(const Poco::Net::StreamSocket& connection) {
    using Poco::Net::SecureStreamSocket;
    m_problem.clear();
    try {
        // An address is no name that a server could be asked for (RFC 6066, 3).
        SecureStreamSocket secure = IsAddress(m_host)
                                        ? SecureStreamSocket::attach(connection, m_context)
                                        : SecureStreamSocket::attach(connection, m_host, m_context);
        // On a descriptor that does not block, it has only begun.
        if (secure.completeHandshake() != 1) {
            throw Poco::Net::SSLConnectionUnexpectedlyClosedException();
        }
        secure.verifyPeerCertificate(m_host);
        return secure;
    } catch (const Poco::Net::SSLException&) {
        if (m_problem.empty()) {
            throw;
        }
        throw Poco::Net::CertificateValidationException("the server's certificate is refused: " +
                                                        m_problem);
    }
}

}  // namespace Engine
