#include "FileTrust.h"

#include <Poco/Error.h>
#include <Poco/Format.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace Agent {

namespace {

/// Whether it is a folder in which nobody may touch what is another's (sticky bit), as /tmp is.
bool IsShared(const struct stat& status) {
    return S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
}

/// Root's own group has no members that are not root already.
bool OthersMayWrite(const struct stat& status) {
    const bool group = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0;
    return (group || (status.st_mode & S_IWOTH) != 0) && !IsShared(status);
}

std::string WhyNotOne(const std::filesystem::path& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return Poco::format("%s cannot be examined: %s", path.string(),
                            Poco::Error::getMessage(errno));
    }
    if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
        return Poco::format("%s belongs to user %u, expected root or the user who runs the agent",
                            path.string(), status.st_uid);
    }
    if (OthersMayWrite(status)) {
        return Poco::format("%s may be written by others (mode 0%o), expected 0755 at the most",
                            path.string(), status.st_mode & ALLPERMS);
    }
    return "";
}

}  // namespace

std::string FileTrust::WhyNot(const std::string& path) {
    std::error_code error;
    const std::filesystem::path file = std::filesystem::canonical(path, error);
    if (error == std::errc::no_such_file_or_directory) {
        return "";
    }
    if (error) {
        return Poco::format("%s cannot be examined: %s", path, error.message());
    }
    const std::string wrong = WhyNotOne(file);
    return wrong.empty() ? WhyNotOne(file.parent_path()) : wrong;
}

}  // namespace Agent
