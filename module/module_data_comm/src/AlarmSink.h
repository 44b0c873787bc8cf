#pragma once

#include "AlarmFormatter.h"
#include "LineWriter.h"
#include "sdk/Mutex.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>

namespace Engine {

/// One place where alarms go, with a bounded queue and a thread of its own: a place that is slow,
/// full or gone costs its own alarms only. seen = written + dropped + failed, once it is stopped.
///
/// Threads: Offer and the counters on any thread; Stop once.
class AlarmSink {
public:
    /// @param writer     where lines go; owned by the sink
    /// @param formatter  how a document becomes a line
    /// @param capacity   documents that may wait
    AlarmSink(std::unique_ptr<LineWriter> writer, AlarmFormatter formatter, std::size_t capacity);
    ~AlarmSink();
    AlarmSink(const AlarmSink&) = delete;
    AlarmSink& operator=(const AlarmSink&) = delete;

    /// Queues a document. One that finds the queue full is dropped and counted; the first of a
    /// burst is logged. @return whether it was queued
    bool Offer(const std::string& document);

    /// Writes what is queued, for two seconds at the most, and ends the thread. What is left counts
    /// as dropped. The totals are logged.
    void Stop();

    std::uint64_t Written() const { return m_written; }
    std::uint64_t Dropped() const { return m_dropped; }
    std::uint64_t Failed() const { return m_failed; }

private:
    void Run();
    bool Take(std::string& document);
    void Write(const std::string& document);

    const std::unique_ptr<LineWriter> m_writer;
    const AlarmFormatter m_formatter;
    const std::size_t m_capacity;

    SDK::Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::deque<std::string> m_waiting SDK_GUARDED_BY(m_mutex);
    bool m_stopping SDK_GUARDED_BY(m_mutex) = false;
    bool m_dropping SDK_GUARDED_BY(m_mutex) = false;

    std::atomic<std::uint64_t> m_written{0};
    std::atomic<std::uint64_t> m_dropped{0};
    std::atomic<std::uint64_t> m_failed{0};
    bool m_failing = false;  // the sink's thread only
    std::thread m_thread;
};

}  // namespace Engine
