#include "FileMarks.h"

#include "FileNotifyLog.h"

#include <Poco/Error.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace FileNotify {

namespace {

SDK::UniqueDescriptor OpenDirectory(const std::string& path) {
    return SDK::UniqueDescriptor(
        ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

/// The nearest directory above a path that can still be opened.
SDK::UniqueDescriptor OpenAbove(std::string path) {
    SDK::UniqueDescriptor directory;
    while (!directory && path.size() > 1) {
        path.erase(path.rfind('/'));
        directory = OpenDirectory(path.empty() ? "/" : path);
    }
    return directory;
}

/// A deleted directory's inode number may be another one's by now, its key never is.
bool IsDirectory(int descriptor, const DirectoryMark& mark) {
    if (!mark.m_key.empty()) {
        return ReadDirectoryKey(descriptor) == mark.m_key;
    }
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && status.st_dev == mark.m_device &&
           status.st_ino == mark.m_inode;
}

/// Errors of fanotify_mark(2) that say: this file system cannot be named by keys.
bool NeedsDescriptors(int error) {
    return error == ENODEV || error == EOPNOTSUPP || error == EXDEV;
}

}  // namespace

FileMarks::FileMarks(bool useKeys) : m_useKeys(useKeys) {}

bool FileMarks::Open() {
    const int byKey = m_useKeys ? m_byKey.Open() : EINVAL;
    const int byDescriptor = m_byDescriptor.Open();
    if (byKey != 0 && byDescriptor != 0) {
        SDK::LogError(Logger(), "The kernel gives no file notification (fanotify): %s",
                      Poco::Error::getMessage(byDescriptor));
        return false;
    }
    return true;
}

void FileMarks::Close() {
    m_byKey.Close();
    m_byDescriptor.Close();
}

std::array<int, 2> FileMarks::Descriptors() const {
    return {m_byKey.Descriptor(), m_byDescriptor.Descriptor()};
}

int FileMarks::Mark(int directory, DirectoryMark& mark) {
    struct stat status {};
    if (::fstat(directory, &status) != 0) {
        return errno;
    }
    mark.m_device = status.st_dev;
    mark.m_inode = status.st_ino;
    mark.m_key = ReadDirectoryKey(directory);
    const int byKey =
        mark.m_key.empty() || !m_byKey.IsOpen() ? EOPNOTSUPP : m_byKey.Mark(directory);
    mark.m_byKey = byKey == 0;
    if (!NeedsDescriptors(byKey) || !m_byDescriptor.IsOpen()) {
        return byKey;
    }
    return m_byDescriptor.Mark(directory);
}

bool FileMarks::Unmark(const DirectoryMark& mark, const std::string& path) {
    SDK::UniqueDescriptor directory = OpenDirectory(path);
    if (!directory || !IsDirectory(directory.Get(), mark)) {
        const SDK::UniqueDescriptor mount = OpenAbove(path);
        directory = OpenByKey(mount.Get(), mark.m_key);
        if (!directory) {
            return errno == ESTALE;  // deleted (open_by_handle_at(2))
        }
    }
    return GroupOf(mark).Unmark(directory.Get()) == 0;
}

std::size_t FileMarks::Read(const FanotifyEventReader::Sink& sink) {
    return m_byKey.Read(sink) + m_byDescriptor.Read(sink);
}

FanotifyGroup& FileMarks::GroupOf(const DirectoryMark& mark) {
    return mark.m_byKey ? m_byKey : m_byDescriptor;
}

}  // namespace FileNotify
