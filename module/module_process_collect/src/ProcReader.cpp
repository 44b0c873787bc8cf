#include "ProcReader.h"

#include "ProcessCollectLog.h"
#include "ProcessRecord.h"
#include "sdk/FileUtils.h"

#include <Poco/Error.h>

#include <dirent.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

namespace ProcessCollect {

namespace {

// A process that runs one program after the other faster than this is met again by its events.
constexpr int kReadAttempts = 3;

struct DirectoryCloser {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

std::string ProcPath(int pid, const char* file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
}

}  // namespace

bool ProcReader::Read(int pid, ProcSnapshot& snapshot) {
    ProcStat stat;
    for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
        if (!ProcStatReader::Read(pid, stat) || !stat.Alive()) {
            return false;
        }
        const std::string path = ReadExePath(pid);
        const std::string arguments = ReadArguments(pid);
        // An exec in between would mix two programs.
        ProcStat after;
        if (ProcStatReader::Read(pid, after) && !after.m_marks.Matches(stat.m_marks)) {
            continue;
        }
        snapshot.m_pid = pid;
        snapshot.m_parentPid = stat.m_parentPid;
        snapshot.m_startTime = stat.m_startTime;
        snapshot.m_image = MakeImageLater(stat.m_comm, path, arguments, stat.m_marks);
        return true;
    }
    return false;
}

bool ProcReader::ListPids(std::vector<int>& pids) {
    const std::unique_ptr<DIR, DirectoryCloser> directory(::opendir("/proc"));
    if (directory == nullptr) {
        SDK::LogError(Logger(), "The process list (/proc) cannot be read: %s",
                      Poco::Error::getMessage(errno));
        return false;
    }
    std::vector<int> found;
    // Safe for threads as long as each has a stream of its own (readdir(3)).
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    while (const dirent* entry = ::readdir(directory.get())) {
        const char* end = entry->d_name + std::strlen(entry->d_name);
        int pid = 0;
        const auto [stop, error] = std::from_chars(entry->d_name, end, pid);
        if (error == std::errc() && stop == end) {
            found.push_back(pid);
        }
    }
    pids.swap(found);
    return true;
}

std::string ProcReader::ReadExePath(int pid) {
    std::array<char, PROCESS_PATH_BYTES> path;
    const ssize_t length = ::readlink(ProcPath(pid, "exe").c_str(), path.data(), path.size());
    return length <= 0 ? std::string() : std::string(path.data(), static_cast<std::size_t>(length));
}

std::string ProcReader::ReadArguments(int pid) {
    bool truncated = false;
    std::string arguments;
    SDK::FileUtils::ReadFile(ProcPath(pid, "cmdline"), truncated, arguments,
                             PROCESS_ARGUMENT_BYTES);
    return arguments;
}

}  // namespace ProcessCollect
