#include "ServiceManager.h"

#include "sdk/UniqueDescriptor.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>

namespace {

/// Stands where the service manager listens.
class ServiceManager : public testing::Test {
protected:
    ServiceManager() : m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = m_folder / "notify";
        std::memcpy(address.sun_path, path.c_str(), path.length());
        ::bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~ServiceManager() override {
        for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
            ::unsetenv(name);
        }
    }

    /// The next thing that was told.
    std::string Told() const {
        std::array<char, 256> text{};
        const ssize_t length = ::recv(m_socket.Get(), text.data(), text.size(), 0);
        return length < 0 ? "" : std::string(text.data(), static_cast<std::size_t>(length));
    }

    TestSupport::TemporaryFolder m_folder;
    const SDK::UniqueDescriptor m_socket;
};

TEST_F(ServiceManager, IsToldWhatTheAgentDoes) {
    const Agent::ServiceManager manager;
    manager.Ready("watching");
    EXPECT_EQ(Told(), "READY=1\nSTATUS=watching");
    manager.Alive();
    EXPECT_EQ(Told(), "WATCHDOG=1");
    manager.Status("stuck");
    EXPECT_EQ(Told(), "STATUS=stuck");
    manager.Stopping();
    EXPECT_EQ(Told(), "STOPPING=1");
}

TEST_F(ServiceManager, WantsSignsOfLifeTwiceInItsPatience) {
    ::setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_EQ(Agent::ServiceManager().AlivePeriod(), std::chrono::seconds(15));
}

TEST_F(ServiceManager, WantsNoSignsOfLifeWhenItDoesNotSaySo) {
    EXPECT_EQ(Agent::ServiceManager().AlivePeriod().count(), 0);
    ::setenv("WATCHDOG_USEC", "30000000", 1);
    ::setenv("WATCHDOG_PID", "1", 1);
    EXPECT_EQ(Agent::ServiceManager().AlivePeriod().count(), 0);
}

TEST_F(ServiceManager, MayBeMissing) {
    ::unsetenv("NOTIFY_SOCKET");
    const Agent::ServiceManager manager;
    manager.Ready("watching");
    manager.Stopping();
    EXPECT_EQ(Told(), "");
}

}  // namespace
