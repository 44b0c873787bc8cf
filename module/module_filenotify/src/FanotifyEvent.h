#pragma once

#include <cstdint>
#include <string_view>

namespace FileNotify {

/// One event of a fanotify group, good until the next one is read.
struct FanotifyEvent {
    int m_pid = 0;
    std::uint64_t m_mask = 0;      ///< FAN_OPEN and the like; FAN_Q_OVERFLOW alone after a loss
    std::string_view m_directory;  ///< a DirectoryKey, or a path when the file came as a descriptor
    std::string_view m_name;       ///< of the file in its directory
    bool m_hasKey = false;         ///< m_directory is a key
    int m_descriptor = -1;         ///< of the file, before its path was read; closed by the group
};

}  // namespace FileNotify
