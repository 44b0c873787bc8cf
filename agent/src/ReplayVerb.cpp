#include "ReplayVerb.h"

#include "ExitCode.h"

#include <Poco/Error.h>

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iostream>
#include <system_error>

namespace Agent {

namespace {

constexpr const char* kPlayer = "vmescape-replay";

}  // namespace

int BecomePlayer(char* const* argv) {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::string player = self.parent_path() / kPlayer;
    ::execv(player.c_str(), argv);
    std::cerr << "vmescape-agent: " << player
              << " cannot be run: " << Poco::Error::getMessage(errno) << '\n';
    return EXIT_FAILED;
}

}  // namespace Agent
