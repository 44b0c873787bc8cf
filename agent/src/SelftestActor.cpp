#include "SelftestActor.h"

#include "ExitCode.h"
#include "sdk/UniqueDescriptor.h"

#include <Poco/Error.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <vector>

namespace Agent {

namespace {

/// @return 0 or the error number
int StartProgram() {
    std::array<char, 5> name = {"true"};
    const std::array<char*, 2> arguments = {name.data(), nullptr};
    pid_t child = -1;
    const int error =
        ::posix_spawn(&child, "/bin/true", nullptr, nullptr, arguments.data(), environ);
    if (error == 0) {
        ::waitpid(child, nullptr, 0);
    }
    return error;
}

int ReadFrom(const std::string& path) {
    const SDK::UniqueDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char byte = 0;
    return file && ::read(file.Get(), &byte, 1) >= 0 ? 0 : errno;
}

/// @param listener  kept open by the caller
int Listen(SDK::UniqueDescriptor& listener) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    listener.Reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const bool good =
        listener &&
        ::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        ::listen(listener.Get(), 1) == 0;
    return good ? 0 : errno;
}

}  // namespace

int SelftestActor::Run(std::istream& orders, std::ostream& answers) {
    const std::string file = "file ";
    SDK::UniqueDescriptor listener;
    for (std::string order; std::getline(orders, order);) {
        answers << std::chrono::steady_clock::now().time_since_epoch().count() << std::endl;
        int error = EINVAL;
        if (order == "command") {
            error = StartProgram();
        } else if (order.rfind(file, 0) == 0) {
            error = ReadFrom(order.substr(file.length()));
        } else if (order == "port") {
            error = Listen(listener);
        }
        if (error != 0) {
            answers << "failed: " << order << ": " << Poco::Error::getMessage(error) << std::endl;
        }
    }
    return EXIT_GOOD;
}

}  // namespace Agent
