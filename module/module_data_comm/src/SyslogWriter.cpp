#include "SyslogWriter.h"

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
#include <sys/socket.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace Engine {

namespace {

// Seconds for connecting, and for a server that does not take what it is sent.
constexpr int kPatienceS = 5;

// Waiting is done in pieces, between which the deadline of a stop is looked at.
const Poco::Timespan kSlice(0, 100000);
constexpr int kPatienceSlices = 50;
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

bool SyslogWriter::Prepare(std::string& why) {
    return Try([] {}, why);
}

std::size_t SyslogWriter::Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) {
    std::size_t done = 0;
    const bool good = Try(
        [&] {
            for (const OutgoingAlarm& alarm : alarms) {
                Send(MessageOf(alarm));
                // A stream may still lose what it took.
                done += m_way == Way::STREAM ? 0 : 1;
            }
            if (m_way == Way::STREAM) {
                WaitForAcknowledgement();
            }
        },
        why);
    return good ? alarms.size() : done;
}

std::string SyslogWriter::MessageOf(const OutgoingAlarm& alarm) const {
    return m_way == Way::DAEMON ? LocalMessage(alarm.m_text, ::getpid(), Poco::LocalDateTime())
                                : Message(alarm.m_text, m_host, ::getpid(), Poco::Timestamp());
}

/// Does something with a connection that is as good as can be known, and closes it when that fails.
bool SyslogWriter::Try(const std::function<void()>& work, std::string& why) {
    try {
        if (m_socket != nullptr && PeerHasClosed()) {
            m_socket.reset();
        }
        if (m_socket == nullptr) {
            Connect();
        }
        work();
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
    if (m_way == Way::STREAM) {
        ConnectStream();
    } else {
        using Poco::Net::SocketAddress;
        auto socket = std::make_unique<Poco::Net::DatagramSocket>(SocketAddress::UNIX_LOCAL);
        socket->connect(SocketAddress(SocketAddress::UNIX_LOCAL, m_address));
        m_socket = std::move(socket);
    }
    m_socket->setSendTimeout(Poco::Timespan(kPatienceS, 0));
}

void SyslogWriter::ConnectStream() {
    auto socket = std::make_unique<Poco::Net::StreamSocket>();
    socket->connectNB(Poco::Net::SocketAddress(m_address));
    const int modes = Poco::Net::Socket::SELECT_WRITE | Poco::Net::Socket::SELECT_ERROR;
    for (int slices = 0; !socket->poll(kSlice, modes); ++slices) {
        if (slices >= kPatienceSlices || DeadlinePassed()) {
            throw Poco::TimeoutException("connecting");
        }
    }
    if (const int error = socket->impl()->socketError(); error != 0) {
        throw Poco::Net::NetException(Poco::Error::getMessage(error), error);
    }
    socket->setBlocking(true);
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
    for (int slices = 0;; ++slices) {
        int unacknowledged = 0;
        m_socket->impl()->ioctl(SIOCOUTQ, unacknowledged);
        if (unacknowledged == 0) {
            return;
        }
        if (slices >= kPatienceSlices || DeadlinePassed() || PeerHasClosed()) {
            throw Poco::TimeoutException("the server does not acknowledge what it was sent");
        }
        // Most answer at once; the wait gets longer where one does not.
        ::usleep(static_cast<useconds_t>(std::min<std::int64_t>(
            kSlice.totalMicroseconds(), kFirstLookUs << std::min(slices, 16))));
    }
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
