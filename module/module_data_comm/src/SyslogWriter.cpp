#include "SyslogWriter.h"

#include "DataCommLog.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Environment.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include <sys/socket.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Engine {

namespace {

// Seconds for connecting, and for a server that does not take what it is sent.
constexpr int kPatienceS = 5;

constexpr const char* kAppName = "vmescape-agent";
constexpr const char* kMessageId = "ALARM";

// The longest HOSTNAME (RFC 5424, 6).
constexpr std::size_t kMaxHost = 255;

constexpr const char* kLocal = "local:";
constexpr const char* kUnix = "unix:";
constexpr const char* kTcp = "tcp:";

std::string Behind(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0 ? text.substr(prefix.length()) : "";
}

/// A HEADER field: printable ASCII without blanks, "-" when there is nothing to say.
std::string Field(std::string text, std::size_t longest) {
    text.erase(std::remove_if(text.begin(), text.end(),
                              [](unsigned char byte) { return byte <= ' ' || byte >= 0x7f; }),
               text.end());
    text.resize(std::min(text.size(), longest));
    return text.empty() ? "-" : text;
}

}  // namespace

std::unique_ptr<SyslogWriter> SyslogWriter::Open(const std::string& place) {
    const std::string name = place.empty() ? "syslog" : "syslog:" + place;
    const std::string daemon = place.empty() ? DEFAULT_SOCKET : Behind(place, kLocal);
    const std::string path = Behind(place, kUnix);
    const std::string server = Behind(place, kTcp);
    const auto make = [&name](const std::string& address, Way way) {
        return std::unique_ptr<SyslogWriter>(new SyslogWriter(name, address, way));
    };
    if (!daemon.empty()) {
        return make(daemon, Way::DAEMON);
    }
    if (!path.empty()) {
        return make(path, Way::DATAGRAM);
    }
    if (server.find(':') != std::string::npos) {
        return make(server, Way::STREAM);
    }
    SDK::LogError(GetDataCommLogger(),
                  "report.output(%s) is not understood, expected syslog, syslog:local:PATH, "
                  "syslog:unix:PATH or syslog:tcp:HOST:PORT",
                  name);
    return nullptr;
}

SyslogWriter::SyslogWriter(const std::string& name, std::string address, Way way)
    : AlarmWriter(name),
      m_address(std::move(address)),
      m_way(way),
      m_host(Poco::Environment::nodeName()) {}

std::string SyslogWriter::Message(const std::string& alarm, const std::string& host, int pid,
                                  const Poco::Timestamp& now) {
    // No byte order mark before the text, which the standard allows: it would stand before the
    // document for whoever reads the message as JSON.
    return Poco::format("<%d>1 %s %s %s %d %s - ", LOG_AUTHPRIV | LOG_ALERT,
                        Poco::DateTimeFormatter::format(now, "%Y-%m-%dT%H:%M:%S.%FZ"),
                        Field(host, kMaxHost), std::string(kAppName), pid,
                        std::string(kMessageId)) +
           alarm;
}

std::string SyslogWriter::LocalMessage(const std::string& alarm, int pid,
                                       const Poco::LocalDateTime& now) {
    return Poco::format("<%d>%s %s[%d]: ", LOG_AUTHPRIV | LOG_ALERT,
                        Poco::DateTimeFormatter::format(now, "%b %f %H:%M:%S"),
                        std::string(kAppName), pid) +
           alarm;
}

bool SyslogWriter::Write(const std::string& alarm, std::string& why) {
    try {
        if (m_socket != nullptr && PeerHasClosed()) {
            m_socket.reset();
        }
        if (m_socket == nullptr) {
            Connect();
        }
        Send(m_way == Way::DAEMON ? LocalMessage(alarm, ::getpid(), Poco::LocalDateTime())
                                  : Message(alarm, m_host, ::getpid(), Poco::Timestamp()));
        return true;
    } catch (const Poco::Exception& exception) {
        why = exception.displayText();
        // A message that is too long for a datagram stays so.
        m_retry = exception.code() != EMSGSIZE;
        m_socket.reset();
        return false;
    }
}

void SyslogWriter::Connect() {
    const Poco::Timespan patience(kPatienceS, 0);
    if (m_way != Way::STREAM) {
        using Poco::Net::SocketAddress;
        auto socket = std::make_unique<Poco::Net::DatagramSocket>(SocketAddress::UNIX_LOCAL);
        socket->connect(SocketAddress(SocketAddress::UNIX_LOCAL, m_address));
        m_socket = std::move(socket);
    } else {
        auto socket = std::make_unique<Poco::Net::StreamSocket>();
        socket->connect(Poco::Net::SocketAddress(m_address), patience);
        m_socket = std::move(socket);
    }
    m_socket->setSendTimeout(patience);
}

void SyslogWriter::Send(const std::string& message) {
    if (auto* local = dynamic_cast<Poco::Net::DatagramSocket*>(m_socket.get())) {
        local->sendBytes(message.data(), static_cast<int>(message.size()));
        return;
    }
    const std::string frame = std::to_string(message.size()) + ' ' + message;
    auto& stream = dynamic_cast<Poco::Net::StreamSocket&>(*m_socket);
    for (std::size_t done = 0; done < frame.size();) {
        const int sent = stream.sendBytes(frame.data() + done,
                                          static_cast<int>(frame.size() - done), MSG_NOSIGNAL);
        done += static_cast<std::size_t>(std::max(sent, 0));
        if (sent <= 0) {
            throw Poco::TimeoutException("the server takes nothing");
        }
    }
}

/// A server never writes: whatever can be read is the end of the connection. Asked before each
/// message, because the first one sent after the end would be lost without an error.
bool SyslogWriter::PeerHasClosed() {
    return m_way == Way::STREAM && m_socket->poll(0, Poco::Net::Socket::SELECT_READ);
}

}  // namespace Engine
