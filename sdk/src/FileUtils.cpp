#include "sdk/FileUtils.h"

#include "sdk/UniqueDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace SDK {

namespace {

// One read's worth. /proc files hand out at most a page at a time.
constexpr std::size_t kReadSize = 4096;

/// Reads until the end, or one byte further than maxBytes: that one tells that there is more.
bool ReadPast(int descriptor, std::string& content, std::size_t maxBytes) {
    while (content.size() <= maxBytes) {
        const std::size_t had = content.size();
        content.resize(had + std::min(maxBytes - had, std::max(kReadSize, had) - 1) + 1);
        const ssize_t got = ::read(descriptor, content.data() + had, content.size() - had);
        content.resize(had + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got < 0 && errno != EINTR) {
            return false;
        }
        if (got == 0) {
            return true;
        }
    }
    return true;
}

}  // namespace

int FileUtils::ReadFile(const std::string& path, bool& truncated, std::string& content,
                        std::size_t maxBytes) {
    const UniqueDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string read;
    if (!descriptor || !ReadPast(descriptor.Get(), read, maxBytes)) {
        return -1;
    }
    truncated = read.size() > maxBytes;
    read.resize(std::min(read.size(), maxBytes));
    content.swap(read);
    return 0;
}

bool FileUtils::IsFile(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace SDK
