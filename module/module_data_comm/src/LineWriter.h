#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

namespace Engine {

/// Writes whole lines to a descriptor. A line that cannot be written to a file whole is taken back,
/// so that the file never holds a torn one. A file that was renamed or removed, as log rotation
/// does, is made anew.
///
/// Threads: Write on one thread; SetDeadline on any.
/// Ownership: closes the descriptor of a file that it opened; leaves others alone.
class LineWriter {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Writes to a descriptor that stays the caller's.
    /// @param name  for the log
    LineWriter(int descriptor, std::string name);
    ~LineWriter();
    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    /// Opens a file to append to; a new one may be read by its owner and group. A named pipe must
    /// have a reader.
    /// @return null when it cannot be opened (logged)
    static std::unique_ptr<LineWriter> OpenFile(const std::string& path);

    /// Writes a line and its end. Waits while a pipe is full, until the deadline.
    /// @return false when it could not be written; errno says why (ETIMEDOUT: the deadline)
    bool Write(const std::string& line);

    /// Ends all waiting at a point in time, now and later. Before the first call there is no end.
    void SetDeadline(TimePoint deadline);
    bool DeadlinePassed() const;

    /// Whether a person reads along.
    bool IsTerminal() const;

    const std::string& Name() const { return m_name; }

private:
    void FollowRename();
    bool WaitWritable() const;
    bool WriteAll(const std::string& text) const;

    int m_descriptor;
    const std::string m_name;  // of a file: its path
    bool m_isFile = false;
    std::atomic<TimePoint> m_deadline{TimePoint::max()};
};

}  // namespace Engine
