#pragma once

#include "AlarmWriter.h"
#include "outputs/Patience.h"

#include <Poco/LocalDateTime.h>
#include <Poco/Net/Socket.h>
#include <Poco/Timestamp.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Engine {

/// Hands alarms to a syslog server: over a local datagram socket, one message a datagram, or over
/// TCP, with the length before each (RFC 6587, octet counting). Messages are those of RFC 5424, but
/// for the local daemon, which is told as syslog(3) tells it: what listens at /dev/log need not
/// know more.
///
/// The facility is authpriv and the severity alert; the message is the formatted alarm. Over TCP an
/// alarm counts as written when the other host has acknowledged all of it; what a broken connection
/// left without that is sent again, so that it may come twice. A server that takes nothing for five
/// seconds is connected to anew; one that is slow is waited for. What the server had received but
/// not read when it ended is lost to both sides, as always with syslog over TCP.
class SyslogWriter : public AlarmWriter {
public:
    /// Where the local log daemon listens (syslog(3)).
    static constexpr const char* DEFAULT_SOCKET = "/dev/log";

    /// @param place  "" (the local daemon), "local:PATH" (the same elsewhere), "unix:PATH" or
    ///               "tcp:HOST:PORT"
    /// @return null when the place is not understood (logged)
    static std::unique_ptr<SyslogWriter> Open(const std::string& place);

    bool Prepare(std::string& why) override;

    /// Over TCP some are sent before their arrival is asked for, as each question costs a round
    /// trip.
    std::size_t BatchSize() const override { return m_way == Way::STREAM ? 128 : 1; }

    std::size_t Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) override;
    bool ShouldRetry() const override { return m_retry; }
    bool CanBeProbed() const override { return true; }

    /// A message of RFC 5424, without framing.
    /// @param host  this one's name
    static std::string Message(const std::string& alarm, const std::string& host, int pid,
                               const Poco::Timestamp& now);

    /// A message as syslog(3) makes it: with local time, and without the host.
    static std::string LocalMessage(const std::string& alarm, int pid,
                                    const Poco::LocalDateTime& now);

private:
    enum class Way { DAEMON, DATAGRAM, STREAM };

    SyslogWriter(const std::string& name, std::string address, Way way);

    std::string MessageOf(const OutgoingAlarm& alarm) const;
    bool Try(const std::function<void()>& work, std::string& why);
    void Connect();
    void ConnectStream();
    void Send(const std::string& message);
    void WaitForAcknowledgement();
    void LookAtServer(const std::string& complaint);
    std::size_t Acknowledged() const;
    std::size_t Arrived() const;
    bool WasReset(int error) const;
    bool PeerHasClosed();

    const std::string m_address;  // a path, or HOST:PORT
    const Way m_way;
    const std::string m_host;
    std::unique_ptr<Poco::Net::Socket> m_socket;  // null: not connected
    bool m_retry = true;                          // the last failure may pass
    Patience m_patience;
    std::size_t m_sent = 0;           // bytes of the alarms that are being written
    std::vector<std::size_t> m_ends;  // of their messages, in these bytes
    std::size_t m_arrived = 0;        // messages, when not all of them did
};

}  // namespace Engine
