#pragma once

#include "AlarmFormatter.h"
#include "AlarmWriter.h"
#include "sdk/Ledger.h"
#include "sdk/Mutex.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>

namespace Engine {

/// One place where alarms go, with a bounded queue and a thread of its own: a place that is slow,
/// full or gone costs its own alarms only. Where the place may come back, an alarm is kept and
/// tried again, after pauses of 100 ms up to five seconds.
///
/// Threads: Offer and the counters on any thread; Stop once.
class AlarmSink {
public:
    /// @param writer     where lines go; owned by the sink
    /// @param formatter  how a document becomes a line
    /// @param capacity   documents that may wait
    AlarmSink(std::unique_ptr<AlarmWriter> writer, AlarmFormatter formatter, std::size_t capacity);
    ~AlarmSink();
    AlarmSink(const AlarmSink&) = delete;
    AlarmSink& operator=(const AlarmSink&) = delete;

    /// Queues a document. One that finds the queue full is dropped and counted; the first of a
    /// burst is logged. @return whether it was queued
    bool Offer(const std::string& document);

    /// Lets two seconds begin, after which nothing more is tried.
    void BeginStop();

    /// Writes what is queued, for two seconds at the most, and ends the thread. What is left counts
    /// as dropped. The totals are logged.
    void Stop();

    /// What was offered, and what became of it: delivered is what was written.
    SDK::Ledger GetLedger() const;

private:
    void Run();
    bool Take(std::string& document);
    void Write(const std::string& document);
    bool Rest(std::chrono::milliseconds pause);
    void Prepare();
    bool HasMore() const;
    void NoteRecovery();
    void CountWritten();
    void CountFailed();
    void NoteTrouble(const std::string& why);

    const std::unique_ptr<AlarmWriter> m_writer;
    const AlarmFormatter m_formatter;
    const std::size_t m_capacity;

    mutable SDK::Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::deque<std::string> m_waiting SDK_GUARDED_BY(m_mutex);
    bool m_stopping SDK_GUARDED_BY(m_mutex) = false;
    bool m_dropping SDK_GUARDED_BY(m_mutex) = false;
    bool m_writing SDK_GUARDED_BY(m_mutex) = false;
    std::uint64_t m_offered SDK_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_written SDK_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_dropped SDK_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_failed SDK_GUARDED_BY(m_mutex) = 0;
    std::int64_t m_lastS SDK_GUARDED_BY(m_mutex) = 0;  // when one was written, since the epoch
    std::string m_trouble SDK_GUARDED_BY(m_mutex);     // why the last one was not; "" when it was
    std::thread m_thread;
    const SDK::OpenLedger m_books{[this] { return GetLedger(); }};
};

}  // namespace Engine
