#include "outputs/SyslogWriter.h"

#include "DataCommLog.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Environment.h>
#include <Poco/Error.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/SocketImpl.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <utility>

namespace Engine {

namespace {

// For connecting, and for a server that stands still.
constexpr std::chrono::seconds kPatience{5};

// Waiting is done in pieces, between which the deadline of a stop is looked at.
const Poco::Timespan kSlice(0, 100000);
constexpr std::int64_t kFirstLookUs = 50;

constexpr int kKeepIdleS = 15;
constexpr int kKeepIntervalS = 5;
constexpr int kKeepCount = 3;

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
      m_host(Poco::Environment::nodeName()),
      m_patience(kPatience) {}

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

bool SyslogWriter::Prepare(std::string& why) {
    return Try([] {}, why);
}

std::size_t SyslogWriter::Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) {
    const bool good = Try(
        [&] {
            for (const OutgoingAlarm& alarm : alarms) {
                Send(MessageOf(alarm));
            }
            WaitForAcknowledgement();
        },
        why);
    return good ? alarms.size() : m_arrived;
}

std::string SyslogWriter::MessageOf(const OutgoingAlarm& alarm) const {
    return m_way == Way::DAEMON ? LocalMessage(alarm.m_text, ::getpid(), Poco::LocalDateTime())
                                : Message(alarm.m_text, m_host, ::getpid(), Poco::Timestamp());
}

/// Does something with a connection that is as good as can be known, and closes it when that fails.
bool SyslogWriter::Try(const std::function<void()>& work, std::string& why) {
    m_sent = 0;
    m_ends.clear();
    try {
        if (m_socket != nullptr && PeerHasClosed()) {
            m_socket.reset();
        }
        if (m_socket == nullptr) {
            Connect();
        }
        m_patience.Begin(std::chrono::steady_clock::now());
        work();
        return true;
    } catch (const Poco::Exception& exception) {
        why = exception.displayText();
        // A message that is too long for a datagram stays so.
        m_retry = exception.code() != EMSGSIZE;
        m_arrived = WasReset(exception.code()) ? 0 : Arrived();
        m_socket.reset();
        return false;
    }
}

void SyslogWriter::Connect() {
    if (m_way == Way::STREAM) {
        ConnectStream();
    } else {
        using Poco::Net::SocketAddress;
        auto socket = std::make_unique<Poco::Net::DatagramSocket>(SocketAddress::UNIX_LOCAL);
        socket->connect(SocketAddress(SocketAddress::UNIX_LOCAL, m_address));
        m_socket = std::move(socket);
    }
}

void SyslogWriter::ConnectStream() {
    auto socket = std::make_unique<Poco::Net::StreamSocket>();
    socket->connectNB(Poco::Net::SocketAddress(m_address));
    const int modes = Poco::Net::Socket::SELECT_WRITE | Poco::Net::Socket::SELECT_ERROR;
    m_patience.Begin(std::chrono::steady_clock::now());
    while (!socket->poll(kSlice, modes)) {
        if (m_patience.HasEnded(0, std::chrono::steady_clock::now()) || DeadlinePassed()) {
            throw Poco::TimeoutException("connecting");
        }
    }
    if (const int error = socket->impl()->socketError(); error != 0) {
        throw Poco::Net::NetException(Poco::Error::getMessage(error), error);
    }
    // A server that has gone without a word, or was forgotten by a firewall between, is noticed
    // within half a minute and not after hours (tcp(7)).
    socket->setKeepAlive(true);
    socket->setOption(IPPROTO_TCP, TCP_KEEPIDLE, kKeepIdleS);
    socket->setOption(IPPROTO_TCP, TCP_KEEPINTVL, kKeepIntervalS);
    socket->setOption(IPPROTO_TCP, TCP_KEEPCNT, kKeepCount);
    m_socket = std::move(socket);
}

/// Waits until the other host has all that was sent.
void SyslogWriter::WaitForAcknowledgement() {
    for (int looks = 0; Acknowledged() < m_sent; ++looks) {
        LookAtServer("the server does not acknowledge what it was sent");
        // Most answer at once; the wait gets longer where one does not.
        ::usleep(static_cast<useconds_t>(std::min<std::int64_t>(
            kSlice.totalMicroseconds(), kFirstLookUs << std::min(looks, 16))));
    }
}

/// Sends a message, and waits while there is no room for it.
void SyslogWriter::Send(const std::string& message) {
    const std::string frame =
        m_way == Way::STREAM ? std::to_string(message.size()) + ' ' + message : message;
    for (std::size_t done = 0; done < frame.size();) {
        const ssize_t sent = ::send(m_socket->impl()->sockfd(), frame.data() + done,
                                    frame.size() - done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            done += static_cast<std::size_t>(sent);
            m_sent += static_cast<std::size_t>(sent);
        } else if (errno == EAGAIN) {
            m_socket->poll(kSlice, Poco::Net::Socket::SELECT_WRITE);
            LookAtServer("the server takes nothing");
        } else if (const int error = errno; error != EINTR) {
            throw Poco::Net::NetException(Poco::Error::getMessage(error), error);
        }
    }
    m_ends.push_back(m_sent);
}

/// Between two waits: ends them when the server stands still or has gone, or the time of a stop is
/// over.
void SyslogWriter::LookAtServer(const std::string& complaint) {
    if (PeerHasClosed()) {
        throw Poco::IOException("the server has closed the connection");
    }
    if (m_patience.HasEnded(Acknowledged(), std::chrono::steady_clock::now()) || DeadlinePassed()) {
        throw Poco::TimeoutException(complaint);
    }
}

/// How many bytes of what was sent are the server's.
std::size_t SyslogWriter::Acknowledged() const {
    // Nothing else was under way when the first of them was sent. The kernel still tells it after
    // the connection was reset.
    int left = 0;
    if (m_way == Way::STREAM && ::ioctl(m_socket->impl()->sockfd(), SIOCOUTQ, &left) != 0) {
        return 0;
    }
    return m_sent - std::min(m_sent, static_cast<std::size_t>(left));
}

/// How many messages are the server's, from the first on.
std::size_t SyslogWriter::Arrived() const {
    const std::size_t acknowledged = m_ends.empty() ? 0 : Acknowledged();
    return static_cast<std::size_t>(std::upper_bound(m_ends.begin(), m_ends.end(), acknowledged) -
                                    m_ends.begin());
}

/// Whether the server's host may have thrown away what it had acknowledged and the server had not
/// read. A server that ends its connection in order has read all of it.
bool SyslogWriter::WasReset(int error) const {
    char byte = 0;
    return m_way == Way::STREAM && m_socket != nullptr &&
           (error == ECONNRESET || error == EPIPE ||
            (::recv(m_socket->impl()->sockfd(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
             errno == ECONNRESET));
}

/// A server never writes: whatever can be read is the end of the connection. Asked before each
/// message, because the first one sent after the end would be lost without an error.
bool SyslogWriter::PeerHasClosed() {
    return m_way == Way::STREAM && m_socket->poll(0, Poco::Net::Socket::SELECT_READ);
}

}  // namespace Engine
