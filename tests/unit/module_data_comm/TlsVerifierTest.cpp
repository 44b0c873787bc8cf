#include "outputs/TlsVerifier.h"

#include "WebServer.h"
#include "outputs/PatientSocket.h"
#include "support/TemporaryFolder.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include <openssl/ssl.h>
#include <sys/stat.h>

#include <optional>
#include <thread>

namespace {

using Poco::Net::Context;
using TestSupport::Certificates;

/// A server that shakes hands with one client.
class TlsServer {
public:
    explicit TlsServer(const Certificates& certificates, int newest = TLS1_3_VERSION)
        : m_context(new Context(Context::TLS_SERVER_USE, certificates.Key(),
                                certificates.Certificate(), "", Context::VERIFY_NONE)) {
        SSL_CTX_set_cipher_list(m_context->sslContext(), "ALL:@SECLEVEL=0");
        SSL_CTX_set_min_proto_version(m_context->sslContext(), 0);
        SSL_CTX_set_max_proto_version(m_context->sslContext(), newest);
        m_listener.emplace(Poco::Net::SocketAddress("127.0.0.1", 0), 4, m_context);
        m_thread = std::thread([this] { ShakeHands(); });
    }
    ~TlsServer() { m_thread.join(); }
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    /// What goes wrong when it is visited as a host; "" when nothing does.
    std::string Visit(const std::string& host, const std::string& authorities) {
        try {
            const Engine::PatientSocket connection(m_listener->address(), [] { return false; });
            Engine::TlsVerifier verifier(host, authorities);
            verifier.Attach(connection);
            return "";
        } catch (const Poco::Exception& exception) {
            return exception.displayText();
        }
    }

private:
    void ShakeHands() {
        try {
            Poco::Net::StreamSocket client = m_listener->acceptConnection();
            char byte = 0;
            client.receiveBytes(&byte, 1);
        } catch (const Poco::Exception&) {
            // A client that refuses it is what tests look for.
        }
    }

    const Context::Ptr m_context;
    std::optional<Poco::Net::SecureServerSocket> m_listener;
    std::thread m_thread;
};

class TlsVerifier : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(Certificates::Missing(), ""); }

    static std::string WhyNotMade(const std::string& authorities) {
        try {
            const Engine::TlsVerifier verifier("localhost", authorities);
            return "";
        } catch (const Poco::Exception& exception) {
            return exception.message();
        }
    }
};

TEST_F(TlsVerifier, TrustsACertificateForTheNameOrTheAddress) {
    const Certificates certificates;
    EXPECT_EQ(TlsServer(certificates).Visit("localhost", certificates.Authority()), "");
    EXPECT_EQ(TlsServer(certificates).Visit("127.0.0.1", certificates.Authority()), "");
}

TEST_F(TlsVerifier, RefusesACertificateForAnotherHost) {
    const Certificates certificates("DNS:receiver.example,IP:192.0.2.1");
    const std::string refused =
        "Certificate validation error: the server's certificate is refused: ";
    EXPECT_EQ(TlsServer(certificates).Visit("localhost", certificates.Authority()),
              refused + "hostname mismatch");
    EXPECT_EQ(TlsServer(certificates).Visit("127.0.0.1", certificates.Authority()),
              refused + "IP address mismatch");
}

TEST_F(TlsVerifier, RefusesACertificateOfAnAuthorityThatIsNotTrusted) {
    const Certificates certificates;
    const Certificates others;
    for (const std::string& authorities : {others.Authority(), std::string()}) {
        EXPECT_NE(TlsServer(certificates)
                      .Visit("localhost", authorities)
                      .find("is refused: unable"
                            " to get local "
                            "issuer certificate"),
                  std::string::npos)
            << authorities;
    }
}

TEST_F(TlsVerifier, RefusesACertificateThatHasExpired) {
    const Certificates certificates("DNS:localhost", -1);
    EXPECT_NE(TlsServer(certificates)
                  .Visit("localhost", certificates.Authority())
                  .find("is refused: certificate has expired"),
              std::string::npos);
}

TEST_F(TlsVerifier, SpeaksNothingOlderThanTheSecondMinorVersion) {
    const Certificates certificates;
    EXPECT_EQ(TlsServer(certificates, TLS1_2_VERSION).Visit("localhost", certificates.Authority()),
              "");
    EXPECT_NE(TlsServer(certificates, TLS1_1_VERSION).Visit("localhost", certificates.Authority()),
              "");
}

TEST_F(TlsVerifier, NeedsCertificatesThatNobodyElseMayWrite) {
    const Certificates certificates;
    ASSERT_EQ(::chmod(certificates.Authority().c_str(), 0666), 0);
    EXPECT_EQ(WhyNotMade(certificates.Authority()),
              certificates.Authority() +
                  " may be written by others (mode 0666), expected 0644 at the most");
    const TestSupport::TemporaryFolder folder;
    EXPECT_EQ(WhyNotMade(folder / "none"),
              folder / "none" + " cannot be examined: No such file or directory");
    const std::string empty = folder.Write("empty", "");
    EXPECT_EQ(WhyNotMade(empty).rfind(empty + ": expected certificates in PEM: ", 0), 0U)
        << WhyNotMade(empty);
}

}  // namespace
