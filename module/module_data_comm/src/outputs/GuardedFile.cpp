#include "outputs/GuardedFile.h"

#include <Poco/Error.h>
#include <Poco/Format.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace Engine {

namespace {

/// Whether others have one of the rights. Root's own group has no members that are not root
/// already.
bool OthersHave(const struct stat& status, mode_t group, mode_t world) {
    return (status.st_gid != 0 && (status.st_mode & group) != 0) || (status.st_mode & world) != 0;
}

}  // namespace

std::string GuardedFile::WhyNot(const std::string& path, Others others) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return Poco::format("%s cannot be examined: %s", path, Poco::Error::getMessage(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return path + " is no regular file";
    }
    if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
        return Poco::format("%s belongs to user %u, expected root or the user who runs the agent",
                            path, status.st_uid);
    }
    if (OthersHave(status, S_IWGRP, S_IWOTH)) {
        return Poco::format("%s may be written by others (mode 0%o), expected 0644 at the most",
                            path, status.st_mode & ALLPERMS);
    }
    if (others == Others::MAY_NOT_READ && OthersHave(status, S_IRGRP, S_IROTH)) {
        return Poco::format("%s may be read by others (mode 0%o), expected 0600 at the most", path,
                            status.st_mode & ALLPERMS);
    }
    return "";
}

}  // namespace Engine
