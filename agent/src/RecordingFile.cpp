#include "RecordingFile.h"

#include <Poco/Error.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Agent {

namespace {

constexpr mode_t kFileMode = 0600;

/// @return what speaks against writing to a file that was there before, or ""
std::string WhyNot(int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) {
        return Poco::Error::getMessage(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return "expected a regular file";
    }
    if (status.st_size != 0) {
        return "is not empty, and a recording overwrites nothing";
    }
    if (status.st_uid != ::geteuid()) {
        return "belongs to another user";
    }
    // Nobody may have got hold of it while it could be read.
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return "may be read or written by others, expected mode 0600";
    }
    return "";
}

}  // namespace

RecordingFile::RecordingFile(std::string path, SDK::UniqueDescriptor descriptor,
                             std::uint64_t limit)
    : m_path(std::move(path)), m_descriptor(std::move(descriptor)), m_limit(limit) {}

std::unique_ptr<RecordingFile> RecordingFile::Open(const std::string& path, std::uint64_t limit,
                                                   std::string& wrong) {
    // Not blocking: a named pipe without a reader is refused.
    const int flags = O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    SDK::UniqueDescriptor file(::open(path.c_str(), flags | O_CREAT | O_EXCL, kFileMode));
    const bool made = static_cast<bool>(file);
    if (!made && errno == EEXIST) {
        file.Reset(::open(path.c_str(), flags));
    }
    if (!file) {
        wrong = path + ": " + Poco::Error::getMessage(errno);
        return nullptr;
    }
    if (const std::string why = made ? "" : WhyNot(file.Get()); !why.empty()) {
        wrong = path + ": " + why;
        return nullptr;
    }
    return std::unique_ptr<RecordingFile>(new RecordingFile(path, std::move(file), limit));
}

std::string RecordingFile::Write(const std::string& lines) {
    for (std::size_t done = 0; done < lines.size();) {
        const ssize_t written =
            ::write(m_descriptor.Get(), lines.data() + done, lines.size() - done);
        if (written > 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno != EINTR) {
            std::string wrong = Poco::Error::getMessage(errno);
            const auto size = static_cast<off_t>(m_size);
            m_torn = ::ftruncate(m_descriptor.Get(), size) != 0 ||
                     ::lseek(m_descriptor.Get(), size, SEEK_SET) < 0;
            return wrong;
        }
    }
    m_size += lines.size();
    return "";
}

}  // namespace Agent
