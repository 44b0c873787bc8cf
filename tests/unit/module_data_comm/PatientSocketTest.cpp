#include "outputs/PatientSocket.h"

#include "WebServer.h"

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

using Engine::PatientSocket;
using Poco::Net::StreamSocket;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPatience(300);

class PatientSocketTo : public testing::Test {
protected:
    PatientSocket::GiveUp Patience() {
        const Clock::time_point end = Clock::now() + kPatience;
        return [end] { return Clock::now() >= end; };
    }

    /// What ends when the patience does, and not much later.
    template <typename Work>
    void ExpectEndOfPatience(const Work& work) {
        const Clock::time_point start = Clock::now();
        EXPECT_THROW(work(), Poco::TimeoutException);
        EXPECT_GE(Clock::now() - start, kPatience);
        EXPECT_LT(Clock::now() - start, kPatience + std::chrono::seconds(2));
    }
};

TEST_F(PatientSocketTo, AServerThatIsFullIsNotConnectedForever) {
    const SilentServer server(true);
    ExpectEndOfPatience([&] { const PatientSocket socket(server.Address(), Patience()); });
}

TEST_F(PatientSocketTo, AServerThatSaysNothingIsNotReadForever) {
    const SilentServer server;
    ExpectEndOfPatience([&] {
        PatientSocket socket(server.Address(), Patience());
        char byte = 0;
        socket.receiveBytes(&byte, 1);
    });
}

TEST_F(PatientSocketTo, AServerThatTakesNothingIsNotWrittenForever) {
    const SilentServer server;
    ExpectEndOfPatience([&] {
        PatientSocket socket(server.Address(), Patience());
        const std::string much(1 << 20, 'x');
        while (true) {
            socket.sendBytes(much.data(), static_cast<int>(much.size()));
        }
    });
}

TEST_F(PatientSocketTo, APlaceWithoutServerSaysSo) {
    Poco::Net::SocketAddress address;
    {
        const SilentServer server;
        address = server.Address();
    }
    EXPECT_THROW(PatientSocket(address, Patience()), Poco::Net::ConnectionRefusedException);
}

TEST_F(PatientSocketTo, AServerThatIsSlowSendsAndTakesEverything) {
    SilentServer server;
    PatientSocket socket(server.Address(), [] { return false; });
    StreamSocket other = server.Accept();
    const std::string much(8 << 20, 'x');
    std::size_t taken = 0;
    std::thread reader([&] {
        std::string buffer(100000, '\0');
        int size = 1;
        while (size > 0 && taken < much.size()) {
            size = other.receiveBytes(buffer.data(), static_cast<int>(buffer.size()));
            taken += static_cast<std::size_t>(size);
        }
        other.sendBytes("done", 4);
    });
    EXPECT_EQ(socket.sendBytes(much.data(), static_cast<int>(much.size())), 8 << 20);
    std::string answer(10, '\0');
    EXPECT_EQ(socket.receiveBytes(answer.data(), 10), 4);
    reader.join();
    EXPECT_EQ(taken, much.size());
}

TEST_F(PatientSocketTo, AServerThatHasGoneSaysSo) {
    SilentServer server;
    PatientSocket socket(server.Address(), Patience());
    {
        StreamSocket other = server.Accept();
        other.setLinger(true, 0);  // so that the end is a reset
    }
    EXPECT_THROW(
        {
            while (true) {
                socket.sendBytes("x", 1);
            }
        },
        Poco::Net::NetException);
}

}  // namespace
