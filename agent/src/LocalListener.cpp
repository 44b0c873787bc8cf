#include "LocalListener.h"

#include <Poco/Error.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Agent {

namespace {

constexpr int kBacklog = 8;
constexpr mode_t kFolderMode = 0755;

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

/// Nobody listens at what is no socket, either; but it is not ours to replace.
bool IsSocket(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

bool Bind(int socket, const sockaddr_un& address) {
    // The mode first (unix(7)): at no moment may others connect.
    return ::fchmod(socket, S_IRWXU) == 0 &&
           ::bind(socket, Generic(address), sizeof(address)) == 0 &&
           ::listen(socket, kBacklog) == 0;
}

}  // namespace

std::string LocalListener::Open(const std::string& path) {
    sockaddr_un address{};
    if (!MakeAddress(path, address)) {
        return Poco::Error::getMessage(errno);
    }
    ::mkdir(path.substr(0, path.rfind('/')).c_str(), kFolderMode);
    if (Connect(path)) {
        return "another program listens there";
    }
    if (errno == ECONNREFUSED && IsSocket(path)) {
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

std::string LocalListener::Close() {
    if (!m_socket) {
        return "";
    }
    m_socket.Reset();
    return ::unlink(m_path.c_str()) == 0 ? "" : Poco::Error::getMessage(errno);
}

/// With a limit for connecting, too: a program that stands still takes nobody in.
SDK::UniqueDescriptor LocalListener::Connect(const std::string& path) {
    constexpr timeval kPatience = {PATIENCE_S, 0};
    sockaddr_un address{};
    if (!MakeAddress(path, address)) {
        return {};
    }
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

}  // namespace Agent
