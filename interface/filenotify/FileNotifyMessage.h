#pragma once

#include "framework/Message.h"

#include <string>
#include <utility>

namespace Engine {

/// A process touched a file below a watched directory.
class FileNotifyMessage : public Framework::Message {
public:
    /// What happened; the bits of inotify(7).
    enum Event : int {
        ACCESS = 0x1,
        MODIFY = 0x2,
        CLOSE_WRITE = 0x8,
        CLOSE_NOWRITE = 0x10,
        OPEN = 0x20,
    };

    /// @param pid   the process that touched the file
    /// @param mask  one or more Event bits
    /// @param path  the file's full path
    FileNotifyMessage(int pid, int mask, std::string path)
        : Framework::Message("filenotify"), m_pid(pid), m_mask(mask), m_path(std::move(path)) {}

    int GetEventProcessId() const { return m_pid; }
    int GetEventMask() const { return m_mask; }
    const std::string& GetEventFilePath() const { return m_path; }

private:
    const int m_pid;
    const int m_mask;
    const std::string m_path;
};

}  // namespace Engine
