#pragma once

#include "sdk/UniqueDescriptor.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>

namespace NetCollectTest {

/// Whether this process may look at all others. Continuous integration must.
inline bool MayLook() {
    const char* ci = std::getenv("CI");
    return ::geteuid() == 0 || (ci != nullptr && std::string(ci) == "true");
}

/// A socket of the test on the loopback, open for others unless told otherwise.
class OpenSocket {
public:
    explicit OpenSocket(int type = SOCK_STREAM, int family = AF_INET, bool open = true)
        : m_socket(::socket(family, type | SOCK_CLOEXEC, 0)), m_family(family) {
        sockaddr_in6 address = Loopback(family);
        EXPECT_EQ(::bind(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), Size()), 0);
        if (type == SOCK_STREAM && open) {
            EXPECT_EQ(::listen(m_socket.Get(), 1), 0);
        }
    }

    int Get() const { return m_socket.Get(); }
    void Close() { m_socket.Reset(); }

    int Port() const {
        sockaddr_in6 address{};
        socklen_t size = sizeof(address);
        ::getsockname(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), &size);
        return ntohs(address.sin6_port);  // at the same place in both families
    }

    /// The number under which the table has it.
    std::uint64_t Inode() const {
        struct stat status {};
        return ::fstat(m_socket.Get(), &status) == 0 ? status.st_ino : 0;
    }

private:
    static sockaddr_in6 Loopback(int family) {
        sockaddr_in6 address{};
        address.sin6_family = static_cast<sa_family_t>(family);
        if (family == AF_INET6) {
            address.sin6_addr = in6addr_loopback;
        } else {
            reinterpret_cast<sockaddr_in*>(&address)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        }
        return address;
    }
    socklen_t Size() const {
        return m_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    }

    SDK::UniqueDescriptor m_socket;
    int m_family;
};

/// A process that a test starts and that does something until its object goes.
class Helper {
public:
    /// @param prepare  run in the child before the constructor returns
    explicit Helper(const std::function<void()>& prepare) {
        int ready[2];
        EXPECT_EQ(::pipe(ready), 0);
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(ready[0]);
            prepare();
            if (::write(ready[1], "x", 1) == 1) {
                for (;;) {
                    ::pause();
                }
            }
            ::_exit(1);
        }
        ::close(ready[1]);
        char byte = 0;
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        ::close(ready[0]);
    }
    ~Helper() { End(); }
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    int Pid() const { return m_pid; }
    void End() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }

private:
    pid_t m_pid = -1;
};

}  // namespace NetCollectTest
