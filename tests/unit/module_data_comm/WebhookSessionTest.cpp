#include "outputs/WebhookSession.h"

#include "WebServer.h"
#include "support/WaitUntil.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPMessage.h>
#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <functional>
#include <thread>

namespace {

using Engine::WebhookAnswer;
using Poco::Net::HTTPRequest;
using TestSupport::Certificates;
using Clock = std::chrono::steady_clock;

class WebhookSession : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        ::signal(SIGPIPE, SIG_IGN);  // as the agent does
        ASSERT_EQ(Certificates::Missing(), "");
    }

    bool Secure() const { return GetParam(); }

    std::unique_ptr<WebServer> Server(WebServer::Script script, std::uint16_t port = 0) {
        return std::make_unique<WebServer>(std::move(script), port,
                                           Secure() ? &m_certificates : nullptr);
    }
    std::unique_ptr<Engine::WebhookSession> Session(std::uint16_t port) {
        return std::make_unique<Engine::WebhookSession>(
            "127.0.0.1", port, Secure() ? std::optional(m_certificates.Authority()) : std::nullopt,
            [this] { return Clock::now() >= m_end; });
    }
    static WebhookAnswer Post(Engine::WebhookSession& session, const std::string& body) {
        HTTPRequest request(HTTPRequest::HTTP_POST, "/path", HTTPRequest::HTTP_1_1);
        return session.Exchange(request, body);
    }

    const Certificates m_certificates;
    Clock::time_point m_end = Clock::now() + std::chrono::seconds(20);
};

TEST_P(WebhookSession, BringsTheRequestAndTheAnswer) {
    const std::string much(3 << 20, 'x');
    const auto server = Server([](const WebServer::Request&) {
        return WebServer::Reply{503, "body", {{"Retry-After", "7"}, {"Location", "there"}}};
    });
    const WebhookAnswer answer = Post(*Session(server->Port()), much);
    EXPECT_EQ(answer.m_status, 503);
    EXPECT_EQ(answer.m_body, "body");
    EXPECT_EQ(answer.m_wait, std::chrono::seconds(7));
    EXPECT_EQ(answer.m_location, "there");
    ASSERT_EQ(server->Requests().size(), 1U);
    EXPECT_EQ(server->Requests()[0].m_body, much);
    EXPECT_EQ(server->Requests()[0].m_target, "/path");
    EXPECT_EQ(server->Requests()[0].m_headers["Host"],
              "127.0.0.1:" + std::to_string(server->Port()));
}

TEST_P(WebhookSession, UsesOneConnectionForWhatFollows) {
    const auto server = Server([](const WebServer::Request&) {
        return WebServer::Reply{200, "answer", {}};
    });
    const auto session = Session(server->Port());
    session->Connect();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Post(*session, std::to_string(i)).m_status, 200);
    }
    ASSERT_EQ(server->Requests().size(), 3U);
    EXPECT_EQ(server->Requests()[0].m_client, server->Requests()[2].m_client);
}

TEST_P(WebhookSession, ConnectsAnewWhenTheServerHasClosedTheConnection) {
    const WebServer::Script good = [](const WebServer::Request&) { return WebServer::Reply{}; };
    auto server = Server(good);
    const auto session = Session(server->Port());
    EXPECT_EQ(Post(*session, "one").m_status, 200);
    const std::uint16_t port = server->Port();
    server.reset();
    server = Server(good, port);
    EXPECT_EQ(Post(*session, "two").m_status, 200) << "without an error between";
    ASSERT_EQ(server->Requests().size(), 1U);
    EXPECT_EQ(server->Requests()[0].m_body, "two");
}

TEST_P(WebhookSession, TakesTheStatusOfAnAnswerWithoutEnd) {
    const auto server = Server([](const WebServer::Request& request) {
        return WebServer::Reply{200, request.m_body == "one" ? std::string(1 << 20, 'x') : "", {}};
    });
    const auto session = Session(server->Port());
    const WebhookAnswer answer = Post(*session, "one");
    EXPECT_EQ(answer.m_status, 200);
    EXPECT_EQ(answer.m_body, std::string(65536, 'x'));
    EXPECT_EQ(Post(*session, "two").m_body, "") << "what was left of it is no part of the next";
}

TEST_P(WebhookSession, SaysWhenTheServerIsNotThere) {
    auto server = Server([](const WebServer::Request&) { return WebServer::Reply{}; });
    const std::uint16_t port = server->Port();
    server.reset();
    EXPECT_THROW(Session(port)->Connect(), Poco::Net::ConnectionRefusedException);
    EXPECT_THROW(Post(*Session(port), "one"), Poco::Net::ConnectionRefusedException);
}

TEST_P(WebhookSession, DoesNotWaitForeverForAServerThatSaysNothing) {
    const SilentServer server;  // not even what TLS begins with
    m_end = Clock::now() + std::chrono::milliseconds(300);
    EXPECT_THROW(Post(*Session(server.Address().port()), "one"), Poco::TimeoutException);
    EXPECT_LT(Clock::now() - m_end, std::chrono::seconds(2));
}

INSTANTIATE_TEST_SUITE_P(Plain, WebhookSession, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Tls, WebhookSession, testing::Values(true));

/// Servers that do not keep to the protocol. They answer before anything is asked.
class WebhookSessionWith : public testing::Test {
protected:
    explicit WebhookSessionWith()
        : m_session("127.0.0.1", m_server.Address().port(), std::nullopt,
                    [this] { return Clock::now() >= m_end; }) {
        m_session.Connect();
        m_other = m_server.Accept();
    }
    void Say(const std::string& text) {
        m_other.sendBytes(text.data(), static_cast<int>(text.size()));
    }
    /// The server's side, which may be given up before its end.
    static std::jthread Serve(std::function<void()> work) {
        return std::jthread([work] {
            try {
                work();
            } catch (const Poco::Exception&) {
                // It was given up.
            }
        });
    }
    WebhookAnswer Post(const std::string& body) {
        HTTPRequest request(HTTPRequest::HTTP_POST, "/", HTTPRequest::HTTP_1_1);
        return m_session.Exchange(request, body);
    }

    SilentServer m_server;
    Clock::time_point m_end = Clock::now() + std::chrono::seconds(20);
    Engine::WebhookSession m_session;
    Poco::Net::StreamSocket m_other;
};

TEST_F(WebhookSessionWith, AServerThatWantsNotAllOfARequestHearsWhatItAnswered) {
    const std::jthread server = Serve([this] {
        char byte = 0;
        m_other.receiveBytes(&byte, 1);
        Say("HTTP/1.1 413 Payload Too Large\r\nContent-Length: 3\r\n\r\nno!");
        m_other.shutdownReceive();
        m_other.setLinger(true, 0);
        m_other.close();  // a reset, as what was sent is not read
    });
    const WebhookAnswer answer = Post(std::string(64 << 20, 'x'));
    EXPECT_EQ(answer.m_status, 413);
}

TEST_F(WebhookSessionWith, AServerThatStopsInTheMiddleOfItsAnswerHearsTheStatus) {
    Say("HTTP/1.1 202 Accepted\r\nContent-Length: 10\r\n\r\nhalf");
    m_end = Clock::now() + std::chrono::milliseconds(300);
    const WebhookAnswer answer = Post("one");
    EXPECT_EQ(answer.m_status, 202);
    EXPECT_EQ(answer.m_body, "half");
    EXPECT_FALSE(m_session.connected());
}

TEST_F(WebhookSessionWith, AServerThatNeverEndsItsHeaderIsGivenUp) {
    Say("HTTP/1.1 200 OK\r\n");
    const std::jthread server = Serve([this] {
        for (int i = 0; i < 1000; ++i) {
            Say("X-" + std::to_string(i) + ": x\r\n");
        }
    });
    EXPECT_THROW(Post("one"), Poco::Net::MessageException) << "and not only after its patience";
    m_session.reset();
}

TEST_F(WebhookSessionWith, AServerThatSendsByteAfterByteIsGivenUp) {
    m_end = Clock::now() + std::chrono::milliseconds(300);
    const std::jthread server = Serve([this] {
        Say("HTTP/1.1 200 ");
        const bool ended = TestSupport::WaitUntil([this] {
            Say("O");
            return Clock::now() > m_end + std::chrono::seconds(5);
        });
        EXPECT_FALSE(ended) << "it was heard to the end";
    });
    EXPECT_THROW(Post("one"), Poco::TimeoutException);
    m_session.reset();
}

TEST_F(WebhookSessionWith, AServerThatSpeaksAnotherProtocolSaysSo) {
    Say("SSH-2.0-OpenSSH_9.2p1\r\n\r\n");
    EXPECT_THROW(Post("one"), Poco::Exception);
}

}  // namespace
