#include "StatusServer.h"

#include <Poco/Error.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Agent {

namespace {

constexpr int kBacklog = 8;
constexpr mode_t kFolderMode = 0755;
constexpr timeval kPatience = {5, 0};

bool MakeAddress(const std::string& path, sockaddr_un& address) {
    if (path.empty() || path.length() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.length() + 1);
    return true;
}

const sockaddr* Generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

/// With a limit for connecting, too: an agent that stands still takes nobody in.
SDK::UniqueDescriptor Connect(const sockaddr_un& address) {
    SDK::UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket) {
        ::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience));
        ::setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
    }
    if (socket && ::connect(socket.Get(), Generic(address), sizeof(address)) != 0) {
        socket.Reset();
    }
    return socket;
}

std::string WhyNot() {
    return errno == EAGAIN ? "it does not answer within " + std::to_string(kPatience.tv_sec) + " s"
                           : Poco::Error::getMessage(errno);
}

bool Bind(int socket, const sockaddr_un& address) {
    // The mode first (unix(7)): at no moment may others connect.
    return ::fchmod(socket, S_IRWXU) == 0 &&
           ::bind(socket, Generic(address), sizeof(address)) == 0 &&
           ::listen(socket, kBacklog) == 0;
}

}  // namespace

std::string StatusServer::Open(const std::string& path) {
    sockaddr_un address{};
    if (!MakeAddress(path, address)) {
        return Poco::Error::getMessage(errno);
    }
    ::mkdir(path.substr(0, path.rfind('/')).c_str(), kFolderMode);
    if (Connect(address)) {
        return "another agent listens there";
    }
    if (errno == ECONNREFUSED) {
        ::unlink(path.c_str());
    }
    m_socket.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!m_socket || !Bind(m_socket.Get(), address)) {
        std::string error = Poco::Error::getMessage(errno);
        m_socket.Reset();
        return error;
    }
    m_path = path;
    return "";
}

void StatusServer::Close() {
    if (m_socket) {
        m_socket.Reset();
        ::unlink(m_path.c_str());
    }
}

void StatusServer::Answer(const std::function<std::string()>& text) const {
    for (;;) {
        const SDK::UniqueDescriptor asking(
            ::accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!asking) {
            return;
        }
        const std::string answer = text();
        // Nobody is waited for, so the socket has to hold all of it.
        const int length = static_cast<int>(answer.length());
        ::setsockopt(asking.Get(), SOL_SOCKET, SO_SNDBUF, &length, sizeof(length));
        ::send(asking.Get(), answer.data(), answer.length(), MSG_NOSIGNAL);
    }
}

std::string StatusServer::Ask(const std::string& path, std::string& answer) {
    sockaddr_un address{};
    const SDK::UniqueDescriptor socket =
        MakeAddress(path, address) ? Connect(address) : SDK::UniqueDescriptor();
    if (!socket) {
        return WhyNot();
    }
    std::array<char, 4096> text{};
    ssize_t got = 0;
    while ((got = ::read(socket.Get(), text.data(), text.size())) > 0) {
        answer.append(text.data(), static_cast<std::size_t>(got));
    }
    return got < 0 ? WhyNot() : "";
}

}  // namespace Agent
