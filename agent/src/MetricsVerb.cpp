#include "MetricsVerb.h"

#include "LocalListener.h"
#include "MetricsText.h"
#include "Privileges.h"
#include "StatusQuery.h"
#include "sdk/JsonUtils.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/ServerSocketImpl.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>

#include <fcntl.h>
#include <signal.h>

#include <iostream>
#include <memory>
#include <utility>

namespace Agent {

namespace {

using Poco::Net::HTTPResponse;

constexpr int kTooManyRequests = 429;  // to checks that know only three states it means "warning"
constexpr int kMaxThreads = 16;        // so that a few slow clients hold up nobody else
constexpr int kMaxQueued = 16;
constexpr int kPatienceS = 2;  // with a client that does not go on

/// Answers one request with what the agent says at this moment.
class Handler : public Poco::Net::HTTPRequestHandler {
public:
    explicit Handler(std::string socket) : m_socket(std::move(socket)) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override {
        const std::string path = request.getURI().substr(0, request.getURI().find('?'));
        if (request.getMethod() != Poco::Net::HTTPRequest::HTTP_GET &&
            request.getMethod() != Poco::Net::HTTPRequest::HTTP_HEAD) {
            response.set("Allow", "GET, HEAD");
            Send(response, HTTPResponse::HTTP_METHOD_NOT_ALLOWED, "text/plain", "Only GET.\n");
        } else if (path == "/metrics" || path == "/health") {
            Answer(path, response);
        } else {
            Send(response, HTTPResponse::HTTP_NOT_FOUND, "text/plain",
                 "There are /metrics and /health.\n");
        }
    }

private:
    void Answer(const std::string& path, Poco::Net::HTTPServerResponse& response) {
        std::string answer;
        Json::Value document;
        const std::string wrong = QueryStatus(m_socket, answer, document);
        if (!wrong.empty()) {
            document = Json::Value();
        }
        if (path == "/metrics") {
            Send(response, HTTPResponse::HTTP_OK, "text/plain; version=0.0.4; charset=utf-8",
                 ToMetrics(document));
        } else {
            const Health health = JudgeHealth(document, wrong);
            Send(response, health.m_status, "application/json", health.m_text + '\n');
        }
    }

    static void Send(Poco::Net::HTTPServerResponse& response, int status, const char* type,
                     const std::string& body) {
        response.setStatusAndReason(static_cast<HTTPResponse::HTTPStatus>(status));
        response.setContentType(type);
        response.sendBuffer(body.data(), body.size());
    }

    const std::string m_socket;
};

class HandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit HandlerFactory(std::string socket) : m_socket(std::move(socket)) {}
    Poco::Net::HTTPRequestHandler* createRequestHandler(
        const Poco::Net::HTTPServerRequest& /*request*/) override {
        return new Handler(m_socket);  // the server's, as its interface asks for
    }

private:
    const std::string m_socket;
};

void Complain(const std::string& text) { std::cerr << "vmescape-agent: metrics: " << text << '\n'; }

int PrintOnce(const std::string& socket) {
    std::string answer;
    Json::Value document;
    const std::string wrong = QueryStatus(socket, answer, document);
    std::cout << ToMetrics(wrong.empty() ? document : Json::Value()) << std::flush;
    if (!wrong.empty()) {
        Complain(wrong);
    }
    return wrong.empty() ? EXIT_GOOD : EXIT_FAILED;
}

/// A server's socket that listens already.
class ListeningSocket : public Poco::Net::ServerSocket {
public:
    /// @param descriptor  stays the caller's
    explicit ListeningSocket(int descriptor) : ServerSocket(new Impl(descriptor), true) {}

private:
    struct Impl : Poco::Net::ServerSocketImpl {
        explicit Impl(int descriptor) { reset(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0)); }
    };
};

constexpr const char* kLocalPrefix = "unix:";

/// @param path  behind the prefix
/// @return EXIT_GOOD, or another exit status (said)
int ListenLocally(const std::string& path, LocalListener& local,
                  Poco::Net::ServerSocket& listener) {
    const std::string wrong = local.Open(path);
    if (!wrong.empty()) {
        Complain("--listen " + (kLocalPrefix + path) + ": " + wrong);
        return EXIT_FAILED;
    }
    listener = ListeningSocket(local.Descriptor());
    return EXIT_GOOD;
}

/// The same, at any of the addresses that there are.
int Listen(const std::string& listen, LocalListener& local, Poco::Net::ServerSocket& listener) {
    const std::string prefix = kLocalPrefix;
    if (listen.rfind(prefix + '/', 0) == 0) {
        return ListenLocally(listen.substr(prefix.length()), local, listener);
    }
    if (listen.rfind(prefix, 0) == 0 || listen.front() == '/') {
        Complain("--listen: expected HOST:PORT or unix:/PATH, found " + listen);
        return EXIT_USAGE;
    }
    const Poco::Net::SocketAddress address(listen);
    if (!address.host().isLoopback()) {
        Complain("--listen: expected a loopback address, found " + listen);
        return EXIT_USAGE;
    }
    listener = Poco::Net::ServerSocket(address, kMaxQueued);
    return EXIT_GOOD;
}

/// Answers until a signal comes.
void AnswerUntil(const sigset_t& signals, const Poco::Net::ServerSocket& listener,
                 const std::string& where, const std::string& socket) {
    auto* parameters = new Poco::Net::HTTPServerParams;  // the server's
    parameters->setMaxThreads(kMaxThreads);
    parameters->setMaxQueued(kMaxQueued);
    parameters->setKeepAlive(false);
    parameters->setTimeout(Poco::Timespan(kPatienceS, 0));
    Poco::Net::HTTPServer server(new HandlerFactory(socket), listener, parameters);
    server.start();
    std::cerr << "vmescape-agent: metrics at " << where << "/metrics, health at /health\n";
    int signal = 0;
    ::sigwait(&signals, &signal);
    server.stopAll(true);
}

int Serve(const std::string& listen, const std::string& socket) {
    // Blocked before the server's threads start, so that they come here.
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    try {
        LocalListener local;
        Poco::Net::ServerSocket listener;
        if (const int code = Listen(listen, local, listener); code != EXIT_GOOD) {
            return code;
        }
        // It speaks with anybody on this host, so it keeps nothing but its user: that is who may
        // ask the agent.
        if (const std::string wrong = Privileges::KeepNone(); !wrong.empty()) {
            Complain(wrong);
            return EXIT_FAILED;
        }
        const bool isLocal = local.Descriptor() >= 0;
        const std::string where =
            isLocal ? listen + ' ' : "http://" + listener.address().toString();
        AnswerUntil(signals, listener, where, socket);
        if (const std::string wrong = local.Close(); !wrong.empty()) {
            Complain(listen + " cannot be removed: " + wrong);
        }
        return EXIT_GOOD;
    } catch (const Poco::Exception& exception) {
        Complain("--listen " + listen + ": " + exception.displayText());
        return EXIT_FAILED;
    }
}

}  // namespace

Health JudgeHealth(const Json::Value& status, const std::string& wrong) {
    Json::Value document;
    document["state"] = status.isNull() ? Json::Value("down") : status["state"];
    document["reasons"] = status.isNull() ? Json::Value(Json::arrayValue) : status["reasons"];
    if (status.isNull()) {
        document["reasons"].append(wrong);
    }
    const int answering = status["state"] == "up" ? HTTPResponse::HTTP_OK : kTooManyRequests;
    return {status.isNull() ? HTTPResponse::HTTP_SERVICE_UNAVAILABLE : answering,
            SDK::JsonUtils::JsonToString(document)};
}

int ExportMetrics(const Options& options) {
    std::string socket;
    if (const int code = FindStatusSocket(options, socket); code != EXIT_GOOD) {
        return code;
    }
    return options.m_listen.empty() ? PrintOnce(socket) : Serve(options.m_listen, socket);
}

}  // namespace Agent
