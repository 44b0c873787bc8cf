#pragma once

#include "DirectoryKey.h"
#include "FanotifyGroup.h"

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <string>

namespace FileNotify {

/// What is known of a directory that is marked.
struct DirectoryMark {
    DirectoryKey m_key;    ///< empty where the file system has no handles
    bool m_byKey = false;  ///< its events name it by the key, else by its path
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

/// Marks directories, each in the group that suits its file system.
///
/// Threads: one at a time.
class FileMarks {
public:
    /// @param useKeys  false: do as on a kernel that cannot name directories by key (before 5.9)
    explicit FileMarks(bool useKeys = true);

    /// @return false when the kernel has no fanotify for this program (logged)
    bool Open();
    void Close();

    /// Readable when there are events. The second is -1 where only one group could be had.
    std::array<int, 2> Descriptors() const;

    /// Marks an open directory; marking twice is once.
    /// @param mark  filled on success
    /// @return 0, or the error number of a file system that cannot be watched
    int Mark(int directory, DirectoryMark& mark);

    /// Takes a mark back, wherever the directory is by now.
    /// @param path  where it was. A directory near by leads to its file system
    /// @return false when the directory cannot be reached; one that is deleted took its mark along
    bool Unmark(const DirectoryMark& mark, const std::string& path);

    /// Hands over what has happened, up to a bound. @return the number of events
    std::size_t Read(const FanotifyEventReader::Sink& sink);

private:
    FanotifyGroup& GroupOf(const DirectoryMark& mark);

    const bool m_useKeys;
    FanotifyGroup m_byKey{FanotifyGroup::Naming::BY_DIRECTORY};
    FanotifyGroup m_byDescriptor{FanotifyGroup::Naming::BY_DESCRIPTOR};
};

}  // namespace FileNotify
