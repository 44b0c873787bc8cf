#include "ProcFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <string_view>

namespace NetCollect {

namespace {

constexpr std::string_view kSocket = "socket:[";
constexpr std::string_view kDeleted = " (deleted)";

struct DirectoryCloser {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

/// Calls a function for each entry of a folder whose name is a number. @return 0 or the error
int ForEachNumber(const std::string& path, const std::function<void(int, int)>& take) {
    const std::unique_ptr<DIR, DirectoryCloser> folder(::opendir(path.c_str()));
    if (folder == nullptr) {
        return errno;
    }
    const int descriptor = ::dirfd(folder.get());
    // Safe on a stream that no other thread reads (readdir(3)).
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    while (const dirent* entry = ::readdir(folder.get())) {
        const std::string_view name(entry->d_name);
        int number = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), number).ec == std::errc()) {
            take(descriptor, number);
        }
    }
    return 0;
}

std::string_view ReadLink(int folder, const char* name, std::array<char, PATH_MAX>& buffer) {
    const ssize_t length = ::readlinkat(folder, name, buffer.data(), buffer.size());
    return {buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

}  // namespace

std::vector<int> ProcFolder::ListPids() {
    std::vector<int> pids;
    const int error = ForEachNumber("/proc", [&](int /*folder*/, int pid) { pids.push_back(pid); });
    errno = error;
    return pids;
}

int ProcFolder::ForEachSocket(int pid, const std::function<void(std::uint64_t)>& take) {
    std::array<char, PATH_MAX> buffer;
    return ForEachNumber("/proc/" + std::to_string(pid) + "/fd", [&](int folder, int number) {
        const std::string_view link = ReadLink(folder, std::to_string(number).c_str(), buffer);
        std::uint64_t inode = 0;
        if (link.substr(0, kSocket.size()) == kSocket &&
            std::from_chars(link.data() + kSocket.size(), link.data() + link.size(), inode).ec ==
                std::errc()) {
            take(inode);
        }
    });
}

std::string ProcFolder::ExePath(int pid) {
    std::array<char, PATH_MAX> buffer;
    std::string_view path =
        ReadLink(AT_FDCWD, ("/proc/" + std::to_string(pid) + "/exe").c_str(), buffer);
    if (path.size() > kDeleted.size() && path.substr(path.size() - kDeleted.size()) == kDeleted) {
        path.remove_suffix(kDeleted.size());
    }
    return std::string(path);
}

}  // namespace NetCollect
