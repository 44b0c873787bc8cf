#pragma once

#include "OutgoingAlarm.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace Engine {

/// Where a sink's alarms go.
///
/// Threads: Prepare and Write on one thread; the deadline and the name on any.
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

    /// How many alarms it likes to be given at once, at the most.
    virtual std::size_t BatchSize() const { return 1; }

    /// Writes alarms in their order, until the first that cannot be written. Where ShouldRetry says
    /// so, that one and those behind it are given again, first and in the same order; a writer may
    /// rely on it.
    /// @param alarms  at least one
    /// @param why     set when not all could be written
    /// @return how many have arrived, from the first on
    virtual std::size_t Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) = 0;

    /// Whether what could not be written is worth another try: the place may come back.
    virtual bool ShouldRetry() const = 0;

    /// Whether Prepare finds out if alarms would be taken, also after one was refused for good,
    /// which says nothing of those that come. Elsewhere only the next alarm can tell.
    virtual bool CanBeProbed() const { return ShouldRetry(); }

    /// Whether a person reads along.
    virtual bool IsTerminal() const { return false; }

    /// Whether alarms are texts for people where no format was named.
    virtual bool IsForPeople() const { return IsTerminal(); }

    /// Ends all waiting at a point in time, now and later. Before the first call there is no end.
    void SetDeadline(TimePoint deadline) { m_deadline = deadline; }
    bool DeadlinePassed() const { return std::chrono::steady_clock::now() >= m_deadline.load(); }

    const std::string& Name() const { return m_name; }

private:
    const std::string m_name;
    std::atomic<TimePoint> m_deadline{TimePoint::max()};
};

}  // namespace Engine
