#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <utility>

namespace Engine {

/// Where a sink's alarms go, one at a time.
///
/// Threads: Write on one thread; the deadline and the name on any.
class AlarmWriter {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// @param name  for the log and the books
    explicit AlarmWriter(std::string name) : m_name(std::move(name)) {}
    virtual ~AlarmWriter() = default;
    AlarmWriter(const AlarmWriter&) = delete;
    AlarmWriter& operator=(const AlarmWriter&) = delete;

    /// Gets ready for what may come, or finds out early that it could not be written.
    /// @param why  set when it could not
    /// @return false when it could not
    virtual bool Prepare(std::string& /*why*/) { return true; }

    /// Writes one formatted alarm, without an end of line.
    /// @param more  whether another one follows at once: whether this one has arrived may then be
    ///              found out together with that one
    /// @param why   set when it could not be written
    /// @return false when it could not be written
    virtual bool Write(const std::string& alarm, bool more, std::string& why) = 0;

    /// Whether what could not be written is worth another try: the place may come back.
    virtual bool ShouldRetry() const = 0;

    /// Whether a person reads along.
    virtual bool IsTerminal() const { return false; }

    /// Ends all waiting at a point in time, now and later. Before the first call there is no end.
    void SetDeadline(TimePoint deadline) { m_deadline = deadline; }
    bool DeadlinePassed() const { return std::chrono::steady_clock::now() >= m_deadline.load(); }

    const std::string& Name() const { return m_name; }

private:
    const std::string m_name;
    std::atomic<TimePoint> m_deadline{TimePoint::max()};
};

}  // namespace Engine
