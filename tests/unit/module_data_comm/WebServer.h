#pragma once

#include "sdk/Mutex.h"
#include "support/Certificates.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/StreamCopier.h>
#include <Poco/ThreadPool.h>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// A server of the web on 127.0.0.1 that answers as a test says, and keeps what it was asked.
class WebServer {
public:
    struct Request {
        std::string m_target;
        std::string m_body;
        std::string m_client;  ///< another one for each connection
        std::map<std::string, std::string> m_headers;
    };
    struct Reply {
        int m_status = 200;
        std::string m_body;
        std::map<std::string, std::string> m_headers;
    };
    using Script = std::function<Reply(const Request&)>;

    /// @param script        called on threads of the server
    /// @param port          0: any that is free
    /// @param certificates  null: without TLS
    explicit WebServer(Script script, std::uint16_t port = 0,
                       const TestSupport::Certificates* certificates = nullptr)
        : m_script(std::move(script)), m_scheme(certificates == nullptr ? "http" : "https") {
        auto* parameters = new Poco::Net::HTTPServerParams;  // the server's
        parameters->setKeepAlive(true);
        const Poco::Net::ServerSocket listener = Listen(port, certificates);
        m_port = listener.address().port();
        m_server = std::make_unique<Poco::Net::HTTPServer>(new Factory(*this), m_threads, listener,
                                                           parameters);
        m_server->start();
    }
    ~WebServer() {
        m_server->stopAll(true);
        m_threads.joinAll();  // that ended the connections, not yet their threads
    }
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    std::uint16_t Port() const { return m_port; }
    std::string Url(const std::string& host = "127.0.0.1") const {
        return m_scheme + "://" + host + ':' + std::to_string(m_port);
    }

    /// What it was asked so far.
    std::vector<Request> Requests() {
        const SDK::LockGuard lock(m_mutex);
        return m_requests;
    }

private:
    class Handler : public Poco::Net::HTTPRequestHandler {
    public:
        explicit Handler(WebServer& server) : m_server(server) {}
        void handleRequest(Poco::Net::HTTPServerRequest& request,
                           Poco::Net::HTTPServerResponse& response) override {
            Request seen{request.getURI(), "", request.clientAddress().toString(), {}};
            Poco::StreamCopier::copyToString(request.stream(), seen.m_body);
            seen.m_headers.insert(request.begin(), request.end());
            m_server.Note(seen);
            const Reply reply = m_server.m_script(seen);
            response.setStatus(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(reply.m_status));
            for (const auto& [name, value] : reply.m_headers) {
                response.set(name, value);
            }
            response.sendBuffer(reply.m_body.data(), reply.m_body.size());
        }

    private:
        WebServer& m_server;
    };

    class Factory : public Poco::Net::HTTPRequestHandlerFactory {
    public:
        explicit Factory(WebServer& server) : m_server(server) {}
        Poco::Net::HTTPRequestHandler* createRequestHandler(
            const Poco::Net::HTTPServerRequest& /*request*/) override {
            return new Handler(m_server);  // the server's, as its interface asks for
        }

    private:
        WebServer& m_server;
    };

    static Poco::Net::ServerSocket Listen(std::uint16_t port,
                                          const TestSupport::Certificates* certificates) {
        const Poco::Net::SocketAddress address("127.0.0.1", port);
        if (certificates == nullptr) {
            Poco::Net::ServerSocket listener;
            listener.bind(address, true);
            listener.listen();
            return listener;
        }
        Poco::Net::SecureServerSocket listener(new Poco::Net::Context(
            Poco::Net::Context::TLS_SERVER_USE, certificates->Key(), certificates->Certificate(),
            "", Poco::Net::Context::VERIFY_NONE));
        listener.bind(address, true);
        listener.listen();
        return listener;
    }

    void Note(const Request& request) {
        const SDK::LockGuard lock(m_mutex);
        m_requests.push_back(request);
    }

    const Script m_script;
    const std::string m_scheme;
    std::uint16_t m_port = 0;
    Poco::ThreadPool m_threads;
    std::unique_ptr<Poco::Net::HTTPServer> m_server;
    SDK::Mutex m_mutex;
    std::vector<Request> m_requests SDK_GUARDED_BY(m_mutex);
};

/// A server on TCP that lets everybody connect and then says nothing. Without a queue not even
/// that: who connects gets no answer.
class SilentServer {
public:
    explicit SilentServer(bool full = false) {
        m_listener.bind(Poco::Net::SocketAddress("127.0.0.1", 0));
        m_listener.listen(full ? 1 : 16);
        if (full) {
            for (Poco::Net::StreamSocket& waiting : m_waiting) {
                waiting.connectNB(m_listener.address());
            }
        }
    }
    Poco::Net::SocketAddress Address() const { return m_listener.address(); }
    std::string Url() const { return "http://" + Address().toString(); }
    Poco::Net::StreamSocket Accept() { return m_listener.acceptConnection(); }

private:
    Poco::Net::ServerSocket m_listener;
    std::array<Poco::Net::StreamSocket, 4> m_waiting;
};
