#include "StatusServer.h"

#include <Poco/Error.h>

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace Agent {

namespace {

std::string WhyNot() {
    return errno == EAGAIN
               ? "it does not answer within " + std::to_string(LocalListener::PATIENCE_S) + " s"
               : Poco::Error::getMessage(errno);
}

}  // namespace

void StatusServer::Answer(const std::function<std::string()>& text) const {
    for (;;) {
        const SDK::UniqueDescriptor asking(
            ::accept4(Descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
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
    const SDK::UniqueDescriptor socket = LocalListener::Connect(path);
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
