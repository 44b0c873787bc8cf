#pragma once

#include "AlarmWriter.h"

#include <memory>
#include <string>

namespace Engine {

/// Writes whole lines to a descriptor. A line that cannot be written to a file whole is taken back,
/// so that the file never holds a torn one. A file that was renamed or removed, as log rotation
/// does, is made anew.
///
/// Ownership: closes the descriptor of a file that it opened; leaves others alone.
class LineWriter : public AlarmWriter {
public:
    /// Writes to a descriptor that stays the caller's.
    /// @param name  for the log
    LineWriter(int descriptor, std::string name);
    ~LineWriter() override;

    /// Opens a file to append to; a new one may be read by its owner and group. A named pipe must
    /// have a reader.
    /// @return null when it cannot be opened (logged)
    static std::unique_ptr<LineWriter> OpenFile(const std::string& path);

    /// Writes lines and their ends. Waits while a pipe is full, until the deadline.
    std::size_t Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) override;

    /// Never: a pipe may have taken a part of the line.
    bool ShouldRetry() const override { return false; }
    bool IsTerminal() const override;

private:
    bool WriteLine(const std::string& line, std::string& why);
    void FollowRename();
    bool WaitWritable() const;
    bool WriteAll(const std::string& text) const;

    int m_descriptor;
    bool m_isFile = false;  // whose path is the writer's name
};

}  // namespace Engine
