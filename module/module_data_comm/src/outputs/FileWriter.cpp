#include "outputs/FileWriter.h"

#include "DataCommLog.h"

#include <Poco/Error.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Engine {

namespace {

constexpr mode_t kFileMode = 0640;

/// Not blocking: a named pipe without a reader is refused, and one with a slow reader is waited for
/// where the deadline is looked at.
///
/// @param links  whether what stands at the path may be a symbolic link
SDK::UniqueDescriptor OpenToAppend(const std::string& path, bool links) {
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    return SDK::UniqueDescriptor(
        ::open(path.c_str(), links ? flags : flags | O_NOFOLLOW, kFileMode));
}

bool IsLink(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

/// Whether the path still leads to the open file.
bool IsSameFile(const std::string& path, int descriptor) {
    struct stat named {};
    struct stat open {};
    return ::stat(path.c_str(), &named) == 0 && ::fstat(descriptor, &open) == 0 &&
           named.st_ino == open.st_ino && named.st_dev == open.st_dev;
}

bool IsRegular(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

off_t SizeOf(int descriptor) { return ::lseek(descriptor, 0, SEEK_END); }

/// Whether an open file stops within a line. One that may not be read counts as whole.
bool EndsWithinLine(int descriptor) {
    // Not by its path, which may lead elsewhere by now.
    const SDK::UniqueDescriptor reader(
        ::open(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), O_RDONLY | O_CLOEXEC));
    char last = '\n';
    return reader && ::pread(reader.Get(), &last, 1, SizeOf(descriptor) - 1) == 1 && last != '\n';
}

bool IsFull(int error) { return error == ENOSPC || error == EDQUOT; }

}  // namespace

std::unique_ptr<FileWriter> FileWriter::Open(const std::string& path, const Options& options) {
    const bool link = IsLink(path);
    SDK::UniqueDescriptor file = OpenToAppend(path, link);
    if (!file) {
        SDK::LogError(GetDataCommLogger(), "Output file(%s) cannot be opened: %s", path,
                      Poco::Error::getMessage(errno));
        return nullptr;
    }
    std::unique_ptr<FileWriter> writer(new FileWriter(path, options, link));
    writer->Take(std::move(file));
    return writer;
}

FileWriter::FileWriter(const std::string& path, const Options& options, bool link)
    : LineWriter(-1, path),
      m_whenFull(options.m_whenFull),
      m_link(link),
      m_rotation(path, options.m_limit, options.m_keep) {}

bool FileWriter::Prepare(std::string& why) { return FollowRename(why); }

bool FileWriter::WriteLine(const std::string& line, std::string& why) {
    if (!FollowRename(why)) {
        return false;
    }
    m_retry = false;
    if (!m_isRegular) {
        return LineWriter::WriteLine(line, why);
    }
    int error = Append(line);
    while (IsFull(error) && m_whenFull == WhenFull::ROTATE && m_rotation.RemoveOldest()) {
        error = Append(line);
    }
    if (error == 0) {
        return true;
    }
    why = Poco::Error::getMessage(error);
    m_retry = IsFull(error) && m_whenFull == WhenFull::WAIT;
    return false;
}

/// @return false when there is no file that may be written to; then it is worth another try
bool FileWriter::FollowRename(std::string& why) {
    if (IsSameFile(Name(), m_file.Get())) {
        return true;
    }
    SDK::UniqueDescriptor file = OpenToAppend(Name(), m_link);
    if (!file && errno == ELOOP && !m_link) {
        // Whoever may write to the folder would choose what the agent writes to.
        why = "a symbolic link has taken its place, which is not followed";
        m_retry = true;
        return false;
    }
    if (!file) {
        if (!std::exchange(m_renewalFails, true)) {
            SDK::LogError(GetDataCommLogger(),
                          "Output file(%s) was moved away and cannot be made anew: %s. Its lines "
                          "go on into the one that was moved.",
                          Name(), Poco::Error::getMessage(errno));
        }
        return true;
    }
    m_renewalFails = false;
    Take(std::move(file));
    SDK::LogInformation(GetDataCommLogger(), "Output file(%s) was moved away, it is made anew",
                        Name());
    return true;
}

void FileWriter::Take(SDK::UniqueDescriptor file) {
    m_file = std::move(file);
    m_isRegular = IsRegular(m_file.Get());
    m_torn = m_isRegular && EndsWithinLine(m_file.Get());
    WriteTo(m_file.Get());
}

/// @return 0, or the error number
int FileWriter::Append(const std::string& line) {
    if (!EndTornLine()) {
        return errno;
    }
    RotateFor(line.size() + 1);
    return WriteWhole(line + '\n');
}

bool FileWriter::EndTornLine() {
    m_torn = m_torn && ::write(m_file.Get(), "\n", 1) != 1;
    return !m_torn;
}

void FileWriter::RotateFor(std::size_t more) {
    if (!m_rotation.IsDue(static_cast<std::uint64_t>(SizeOf(m_file.Get())), more)) {
        return;
    }
    std::string why;
    SDK::UniqueDescriptor fresh = m_rotation.Rotate(why);
    if (fresh) {
        m_rotationFails = false;
        Take(std::move(fresh));
    } else if (!std::exchange(m_rotationFails, true)) {
        SDK::LogError(GetDataCommLogger(),
                      "Output file(%s) cannot be rotated and grows beyond its limit: %s", Name(),
                      why);
    }
}

/// Appends a text, or leaves the file as it was. @return 0, or the error number
int FileWriter::WriteWhole(const std::string& text) {
    const off_t before = SizeOf(m_file.Get());
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = ::write(m_file.Get(), text.data() + done, text.size() - done);
        if (written > 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno != EINTR) {
            const int error = errno;
            // Refused where the file may only be appended to (chattr(1)).
            m_torn = done > 0 && ::ftruncate(m_file.Get(), before) != 0;
            return error;
        }
    }
    return 0;
}

}  // namespace Engine
