#include "WatchPath.h"

#include "sdk/PathUtils.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

namespace FileNotify {

std::string WatchPath::Clean(const std::string& path) {
    if (path.empty() || path.front() != '/') {
        return {};
    }
    return SDK::PathUtils::RemoveIdleSlashes(path);
}

std::string WatchPath::Above(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string WatchPath::Join(const std::string& directory, std::string_view name) {
    std::string path;
    path.reserve(directory.size() + 1 + name.size());
    path = directory;
    if (directory != "/") {
        path += '/';
    }
    path += name;
    return path;
}

std::string WatchPath::RealDirectory(const std::string& path) {
    struct Free {
        void operator()(char* text) const { std::free(text); }
    };
    const std::unique_ptr<char, Free> real(::realpath(path.c_str(), nullptr));
    struct stat status {};
    if (real == nullptr || ::stat(real.get(), &status) != 0) {
        return {};
    }
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return {};
    }
    return real.get();
}

}  // namespace FileNotify
