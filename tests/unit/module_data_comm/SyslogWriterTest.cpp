#include "outputs/SyslogWriter.h"

#include "AlarmSink.h"
#include "SinkBooks.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <Poco/Environment.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Engine::AlarmFormatter;
using Engine::AlarmSink;
using Engine::OutgoingAlarm;
using Engine::SyslogWriter;
using Poco::Net::SocketAddress;
using TestSupport::WaitUntil;
using Clock = std::chrono::steady_clock;

/// What stands before every alarm, but for the time.
std::string Head() {
    return ' ' + Poco::Environment::nodeName() + " vmescape-agent " + std::to_string(::getpid()) +
           " ALARM - ";
}

/// A server of the local kind.
class LocalServer {
public:
    explicit LocalServer(const std::string& path) {
        std::filesystem::remove(path);
        m_socket.bind(SocketAddress(SocketAddress::UNIX_LOCAL, path));
        m_socket.setReceiveTimeout(Poco::Timespan(20, 0));
    }
    std::string Receive() {
        std::array<char, 65536> buffer{};
        const int size = m_socket.receiveBytes(buffer.data(), static_cast<int>(buffer.size()));
        return {buffer.data(), static_cast<std::size_t>(size)};
    }

private:
    Poco::Net::DatagramSocket m_socket{SocketAddress::UNIX_LOCAL};
};

/// A server on TCP, on a port of its own.
class TcpServer {
public:
    explicit TcpServer(std::uint16_t port = 0) {
        m_listener.bind(SocketAddress("127.0.0.1", port), true);
        m_listener.listen();
    }
    std::string Place() const { return "tcp:127.0.0.1:" + std::to_string(Port()); }
    std::uint16_t Port() const { return m_listener.address().port(); }

    /// Makes the host take little of what the server does not read, on connections from now on.
    void HaveLittleRoom() { m_listener.setReceiveBufferSize(4096); }

    /// Ends the connection without reading what came.
    void EndInOrder() { m_connection.shutdownSend(); }
    void Reset() {
        m_connection.setLinger(true, 0);
        m_connection.close();
    }

    /// Reads some kilobytes.
    /// @return how many bytes
    std::size_t ReadSome() {
        std::array<char, 4096> buffer{};
        return static_cast<std::size_t>(
            m_connection.receiveBytes(buffer.data(), static_cast<int>(buffer.size())));
    }

    void Accept() {
        m_connection = m_listener.acceptConnection();
        m_connection.setReceiveTimeout(Poco::Timespan(20, 0));
    }

    /// The next frame, by its length.
    std::string Receive() {
        std::string length;
        for (char byte = Byte(); byte != ' '; byte = Byte()) {
            length += byte;
        }
        std::string message(std::stoul(length), '\0');
        for (char& byte : message) {
            byte = Byte();
        }
        return message;
    }

private:
    char Byte() {
        char byte = 0;
        if (m_connection.receiveBytes(&byte, 1) != 1) {
            throw Poco::Exception("the connection has ended");
        }
        return byte;
    }

    Poco::Net::ServerSocket m_listener;
    Poco::Net::StreamSocket m_connection;
};

class Syslog : public testing::Test {
protected:
    std::string Why(SyslogWriter& writer, const std::string& alarm = "alarm") {
        std::string why;
        EXPECT_EQ(writer.Write({{"", alarm}}, why), 0U);
        return why;
    }
    bool Put(SyslogWriter& writer, const std::string& alarm) {
        std::string why;
        const std::size_t written = writer.Write({{"", alarm}}, why);
        EXPECT_EQ(why, "");
        return written == 1;
    }

    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "log";
};

TEST_F(Syslog, MessagesHaveTheHeaderOfTheProtocolsFirstVersion) {
    const Poco::Timestamp when(Poco::Timestamp::fromEpochTime(86400) + 1500);
    // 81: facility authpriv (10), severity alert (1).
    EXPECT_EQ(SyslogWriter::Message(R"({"a":1})", "host-1", 812, when),
              R"(<81>1 1970-01-02T00:00:00.001500Z host-1 vmescape-agent 812 ALARM - {"a":1})");
}

TEST_F(Syslog, TellsTheLocalDaemonAsTheCLibraryDoes) {
    const Poco::LocalDateTime when(0, Poco::DateTime(2026, 11, 2, 3, 4, 5));
    EXPECT_EQ(SyslogWriter::LocalMessage(R"({"a":1})", 812, when),
              R"(<81>Nov  2 03:04:05 vmescape-agent[812]: {"a":1})");
    LocalServer server(m_path);
    const auto writer = SyslogWriter::Open("local:" + m_path);
    ASSERT_TRUE(Put(*writer, "one"));
    EXPECT_TRUE(
        server.Receive().ends_with(" vmescape-agent[" + std::to_string(::getpid()) + "]: one"));
}

TEST_F(Syslog, MessagesNameNoHostThatWouldBreakTheirHeader) {
    EXPECT_NE(SyslogWriter::Message("x", "", 1, {}).find("Z - vmescape"), std::string::npos);
    EXPECT_NE(SyslogWriter::Message("x", "a b\nc\xff", 1, {}).find("Z abc vmescape"),
              std::string::npos);
    EXPECT_NE(SyslogWriter::Message("x", std::string(300, 'h'), 1, {})
                  .find(' ' + std::string(255, 'h') + " vmescape"),
              std::string::npos);
}

TEST_F(Syslog, GivesTheLocalServerOneMessageADatagram) {
    LocalServer server(m_path);
    const auto writer = SyslogWriter::Open("unix:" + m_path);
    EXPECT_EQ(writer->Name(), "syslog:unix:" + m_path);
    ASSERT_TRUE(Put(*writer, "one"));
    ASSERT_TRUE(Put(*writer, "two"));
    EXPECT_TRUE(server.Receive().ends_with(Head() + "one"));
    EXPECT_TRUE(server.Receive().ends_with(Head() + "two"));
}

TEST_F(Syslog, FindsTheLocalServerAgainAfterItWasStartedAnew) {
    const auto writer = SyslogWriter::Open("unix:" + m_path);
    EXPECT_NE(Why(*writer), "");
    EXPECT_TRUE(writer->ShouldRetry());
    {
        LocalServer server(m_path);
        ASSERT_TRUE(Put(*writer, "one"));
        server.Receive();
    }
    EXPECT_NE(Why(*writer), "");
    EXPECT_TRUE(writer->ShouldRetry());
    LocalServer server(m_path);
    ASSERT_TRUE(Put(*writer, "two"));
    EXPECT_TRUE(server.Receive().ends_with("two"));
}

TEST_F(Syslog, DoesNotTryAgainWhatIsTooLongForADatagram) {
    LocalServer server(m_path);
    const auto writer = SyslogWriter::Open("unix:" + m_path);
    EXPECT_NE(Why(*writer, std::string(4 << 20, 'x')), "");
    EXPECT_FALSE(writer->ShouldRetry());
    EXPECT_TRUE(writer->CanBeProbed()) << "what is refused says nothing of the place";
    ASSERT_TRUE(Put(*writer, "next"));
    EXPECT_TRUE(server.Receive().ends_with("next"));
}

TEST_F(Syslog, SendsTheLengthBeforeEachMessageOverTcp) {
    TcpServer server;
    const auto writer = SyslogWriter::Open(server.Place());
    ASSERT_TRUE(Put(*writer, "one\nwith two lines"));
    ASSERT_TRUE(Put(*writer, std::string(100000, 'x')));
    server.Accept();
    EXPECT_TRUE(server.Receive().ends_with(Head() + "one\nwith two lines"));
    EXPECT_TRUE(server.Receive().ends_with(Head() + std::string(100000, 'x')));
}

TEST_F(Syslog, ConnectsAnewWhenTheServerHasGone) {
    auto server = std::make_unique<TcpServer>();
    const std::uint16_t port = server->Port();
    const auto writer = SyslogWriter::Open(server->Place());
    ASSERT_TRUE(Put(*writer, "one"));
    server->Accept();
    server->Receive();
    server.reset();
    EXPECT_NE(Why(*writer), "") << "the end of the connection is noticed before anything is sent";
    EXPECT_TRUE(writer->ShouldRetry());
    server = std::make_unique<TcpServer>(port);
    ASSERT_TRUE(Put(*writer, "two"));
    server->Accept();
    EXPECT_TRUE(server->Receive().ends_with("two"));
}

TEST_F(Syslog, KeepsAlarmsUntilTheServerIsThere) {
    auto server = std::make_unique<TcpServer>();
    const std::uint16_t port = server->Port();
    const std::string place = server->Place();
    server.reset();
    AlarmSink sink(SyslogWriter::Open(place), AlarmFormatter(AlarmFormatter::Style::JSON, false),
                   10);
    for (const char* alarm : {"one", "two", "three"}) {
        sink.Offer(alarm);
    }
    ASSERT_TRUE(WaitUntil([&] { return !sink.GetLedger().m_trouble.empty(); }));
    EXPECT_EQ(BooksOf(sink).m_waiting, 3U) << "the one that is tried again counts as waiting";
    server = std::make_unique<TcpServer>(port);
    server->Accept();
    for (const char* alarm : {"one", "two", "three"}) {
        EXPECT_TRUE(server->Receive().ends_with(alarm)) << alarm;
    }
    // The last that happens: first the alarms are settled, then the trouble is over, then it is
    // said.
    EXPECT_TRUE(
        WaitUntil([&] { return m_log.Contains("can be written again. 0 alarms failed so far."); }));
    EXPECT_EQ(Written(sink), 3U);
    EXPECT_EQ(sink.GetLedger().m_trouble, "");
    EXPECT_EQ(sink.GetLedger().Lost(), 0U);
    EXPECT_EQ(m_log.Texts(Poco::Message::PRIO_ERROR).size(), 1U) << "the trouble, once";
}

TEST_F(Syslog, DoesNotHoldUpTheStopForAServerThatIsNotThere) {
    AlarmSink sink(SyslogWriter::Open("unix:" + m_path),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 10);
    for (int i = 0; i < 5; ++i) {
        sink.Offer("alarm");
    }
    sink.Stop();
    EXPECT_EQ(Failed(sink) + Dropped(sink), 5U);
}

TEST_F(Syslog, SendsAgainWhatABrokenConnectionMayHaveLost) {
    auto server = std::make_unique<TcpServer>();
    const std::uint16_t port = server->Port();
    const auto writer = SyslogWriter::Open(server->Place());
    std::string why;
    ASSERT_TRUE(writer->Prepare(why)) << why;
    server->Accept();
    server.reset();
    const std::vector<OutgoingAlarm> batch = {{"", "one"}, {"", "two"}, {"", "three"}};
    ASSERT_EQ(writer->Write(batch, why), 0U) << "of none is known that it arrived";
    server = std::make_unique<TcpServer>(port);
    ASSERT_EQ(writer->Write(batch, why), 3U) << why;
    server->Accept();
    for (const char* alarm : {"one", "two", "three"}) {
        EXPECT_TRUE(server->Receive().ends_with(alarm)) << alarm;
    }
}

// More than both hosts' buffers hold.
constexpr std::size_t kTooMuch = 32 << 20;

TEST_F(Syslog, SendsNotAgainWhatTheServersHostHasOfABatchThatItDoesNotTakeWhole) {
    TcpServer server;
    server.HaveLittleRoom();
    const auto writer = SyslogWriter::Open(server.Place());
    const std::string large(kTooMuch, 'x');
    writer->SetDeadline(Clock::now() + std::chrono::seconds(1));
    std::string why;
    EXPECT_EQ(writer->Write({{"", "one"}, {"", "two"}, {"", large}, {"", "four"}}, why), 2U);
    EXPECT_EQ(why, "Timeout: the server takes nothing");
    EXPECT_TRUE(writer->ShouldRetry());
    server.Accept();
    EXPECT_TRUE(server.Receive().ends_with(Head() + "one"));
    EXPECT_TRUE(server.Receive().ends_with(Head() + "two"));
}

/// Gives three alarms to a server that reads two of them and then ends the connection in its way.
/// @return how many count as arrived
std::size_t WriteToServerThatEnds(void (TcpServer::*end)(), std::string& why) {
    TcpServer server;
    server.HaveLittleRoom();
    const auto writer = SyslogWriter::Open(server.Place());
    EXPECT_TRUE(writer->Prepare(why)) << why;
    server.Accept();
    std::thread reader([&] {
        server.Receive();
        server.Receive();
        (server.*end)();
    });
    const std::string large(kTooMuch, 'x');
    const std::size_t arrived = writer->Write({{"", "one"}, {"", "two"}, {"", large}}, why);
    reader.join();
    EXPECT_TRUE(writer->ShouldRetry());
    return arrived;
}

TEST_F(Syslog, SendsNotAgainWhatTheServersHostHadBeforeTheServerEndedTheConnection) {
    std::string why;
    EXPECT_EQ(WriteToServerThatEnds(&TcpServer::EndInOrder, why), 2U);
    EXPECT_EQ(why, "I/O error: the server has closed the connection");
}

TEST_F(Syslog, SendsAgainAllThatWasUnderWayWhenTheConnectionIsReset) {
    std::string why;
    EXPECT_EQ(WriteToServerThatEnds(&TcpServer::Reset, why), 0U)
        << "what the server had not read is gone, and nobody knows how much that is";
}

TEST_F(Syslog, WaitsForAServerThatReadsSlowlyForAsLongAsItReads) {
    TcpServer server;
    server.HaveLittleRoom();
    const auto writer = SyslogWriter::Open(server.Place());
    std::string why;
    ASSERT_TRUE(writer->Prepare(why)) << why;
    server.Accept();
    const std::string alarm(256 << 10, 'x');
    std::thread reader([&] {
        for (std::size_t left = alarm.size(); left > 0;) {
            // Together longer than the five seconds after which one that stands still is given up.
            WaitUntil([] { return false; }, std::chrono::milliseconds(100));
            left -= std::min(left, server.ReadSome());
        }
    });
    EXPECT_EQ(writer->Write({{"", alarm}}, why), 1U) << why;
    reader.join();
}

TEST_F(Syslog, EndsASendToAServerThatDoesNotReadAtTheDeadline) {
    TcpServer server;
    server.HaveLittleRoom();
    const auto writer = SyslogWriter::Open(server.Place());
    writer->SetDeadline(Clock::now());
    const auto start = Clock::now();
    EXPECT_EQ(Why(*writer, std::string(kTooMuch, 'x')), "Timeout: the server takes nothing");
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
}

TEST_F(Syslog, EndsASendToALocalServerThatDoesNotReadAtTheDeadline) {
    for (const char* kind : {"unix:", "local:"}) {
        const LocalServer server(m_path);
        const auto writer = SyslogWriter::Open(kind + m_path);
        writer->SetDeadline(Clock::now());
        const auto start = Clock::now();
        std::string why;
        while (writer->Write({{"", "alarm"}}, why) == 1) {
        }
        EXPECT_EQ(why, "Timeout: the server takes nothing");
        EXPECT_TRUE(writer->ShouldRetry());
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
    }
}

TEST_F(Syslog, FindsOutBeforeAnAlarmNeedsItWhetherTheServerIsThere) {
    AlarmSink sink(SyslogWriter::Open("unix:" + m_path),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 10);
    EXPECT_TRUE(WaitUntil([&] { return !sink.GetLedger().m_trouble.empty(); }));
    const LocalServer server(m_path);
    EXPECT_TRUE(WaitUntil([&] { return sink.GetLedger().m_trouble.empty(); }));
    EXPECT_EQ(BooksOf(sink).m_seen, 0U);
}

/// A server whose queue of connections is full: whoever comes now gets no answer.
class FullServer {
public:
    FullServer() {
        m_listener.bind(SocketAddress("127.0.0.1", 0));
        m_listener.listen(1);
        for (Poco::Net::StreamSocket& waiting : m_waiting) {
            waiting.connectNB(m_listener.address());
        }
    }
    std::string Place() const {
        return "tcp:127.0.0.1:" + std::to_string(m_listener.address().port());
    }

private:
    Poco::Net::ServerSocket m_listener;
    std::array<Poco::Net::StreamSocket, 4> m_waiting;
};

TEST_F(Syslog, StopsManyThatWaitForTheirServersInTheTimeOfOne) {
    const FullServer server;
    std::vector<std::unique_ptr<AlarmSink>> sinks;
    for (int i = 0; i < 4; ++i) {
        sinks.push_back(
            std::make_unique<AlarmSink>(SyslogWriter::Open(server.Place()),
                                        AlarmFormatter(AlarmFormatter::Style::JSON, false), 10));
        sinks.back()->Offer("alarm");
    }
    const auto start = std::chrono::steady_clock::now();
    for (const auto& sink : sinks) {
        sink->BeginStop();
    }
    for (const auto& sink : sinks) {
        sink->Stop();
        EXPECT_EQ(sink->GetLedger().Lost(), 1U);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
}

TEST_F(Syslog, RefusesAPlaceThatItDoesNotKnow) {
    for (const char* place : {"udp:host:514", "tcp:host", "unix:", "local:", "somewhere"}) {
        m_log.Clear();
        EXPECT_EQ(SyslogWriter::Open(place), nullptr) << place;
        EXPECT_TRUE(m_log.Contains("report.output(syslog:" + std::string(place) +
                                   ") is not understood, expected syslog, syslog:local:PATH, "
                                   "syslog:unix:PATH or syslog:tcp:HOST:PORT"));
    }
    EXPECT_EQ(SyslogWriter::Open("")->Name(), "syslog");
}

}  // namespace
