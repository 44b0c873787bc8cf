#pragma once

#include "AlarmSpool.h"
#include "AlarmWriter.h"
#include "OutgoingAlarm.h"
#include "formats/AlarmFormatter.h"
#include "sdk/Ledger.h"
#include "sdk/Mutex.h"
#include "sdk/QueueTimes.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Engine {

/// One place where alarms go, with a bounded queue and a thread of its own: a place that is slow,
/// full or gone costs its own alarms only. Where the place may come back, an alarm is kept and
/// tried again, after pauses of 100 ms up to five seconds.
///
/// A sink with a spool puts what waits for a place in trouble on disk, so that neither the length
/// of the queue nor the end of the agent costs alarms. Until the spool is empty again new alarms
/// queue behind it. What comes during a try waits in memory until the try is over.
///
/// Threads: Offer, Reopen and the books on any thread; Stop once.
class AlarmSink {
public:
    /// @param writer     where alarms go; owned by the sink
    /// @param formatter  how a document becomes a text
    /// @param capacity   documents that may wait in memory
    /// @param spool      where those wait for which there is no place; null: nowhere
    AlarmSink(std::unique_ptr<AlarmWriter> writer, AlarmFormatter formatter, std::size_t capacity,
              std::unique_ptr<AlarmSpool> spool = nullptr);
    ~AlarmSink();
    AlarmSink(const AlarmSink&) = delete;
    AlarmSink& operator=(const AlarmSink&) = delete;

    /// Queues a document. One that finds the queue full is dropped and counted; the first of a
    /// burst is logged. @return whether it was queued
    bool Offer(const std::string& document);

    /// Makes the writer get ready anew, as at the start, before it is given the next alarm: what it
    /// had open may have been moved away.
    void Reopen();

    /// Lets two seconds begin, after which nothing more is tried.
    void BeginStop();

    /// Writes what is queued, for two seconds at the most, and ends the thread. What is left stays
    /// in the spool, or counts as dropped where there is none. The totals are logged.
    void Stop();

    /// What was offered, and what became of it: delivered is what was written. What an agent before
    /// this one left in the spool counts as offered. The latency goes from the offer to the moment
    /// at which the place has the alarm; of what was left it is not known.
    SDK::Ledger GetLedger() const;

private:
    // Between two tries, the first time.
    static constexpr std::chrono::milliseconds FIRST_PAUSE{100};

    void Run();
    void TakeOverSpool();
    void NoteFound(std::size_t count);
    bool Take();
    bool WaitForWork();
    void TakeFromSpool();
    void GiveUpSegment(const std::string& why);
    void TakeFromQueue();
    void AddToHand(std::string document);
    void WriteHand();
    void SettleFirst(std::size_t count);
    void FailFirst();
    void GiveUpHand();
    void GiveUpQueue();
    void Spill();
    bool SpillHand();
    bool Rest(std::chrono::milliseconds pause);
    void Prepare();
    bool IsInTrouble() const;
    void NoteRecovery();
    void NoteTrouble(const std::string& why);
    void NoteSpoolFailure(const std::string& why);

    const std::unique_ptr<AlarmWriter> m_writer;
    const AlarmFormatter m_formatter;
    const std::size_t m_capacity;

    // The sink's thread alone. What is in its hand is what the writer is given: either documents
    // that were taken off the queue, or copies of the oldest ones of the spool.
    const std::unique_ptr<AlarmSpool> m_spool;
    std::vector<OutgoingAlarm> m_hand;
    bool m_handIsSpooled = false;
    bool m_spoolFails = false;
    std::chrono::milliseconds m_spoolPause = FIRST_PAUSE;  // until the spool is read again

    mutable SDK::Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::deque<std::string> m_waiting SDK_GUARDED_BY(m_mutex);
    bool m_stopping SDK_GUARDED_BY(m_mutex) = false;
    bool m_reopening SDK_GUARDED_BY(m_mutex) = false;
    bool m_dropping SDK_GUARDED_BY(m_mutex) = false;
    SDK::QueueTimes m_times SDK_GUARDED_BY(m_mutex);  // of m_away and m_waiting: their offers
    SDK::LatencyHistogram m_latency SDK_GUARDED_BY(m_mutex);
    std::uint64_t m_offered SDK_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_away SDK_GUARDED_BY(m_mutex) = 0;  // with the sink's thread or in the spool
    std::uint64_t m_written SDK_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_dropped SDK_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_failed SDK_GUARDED_BY(m_mutex) = 0;
    std::int64_t m_lastS SDK_GUARDED_BY(m_mutex) = 0;  // when one was written, since the epoch
    std::string m_trouble SDK_GUARDED_BY(m_mutex);     // why the last one was not; "" when it was
    std::thread m_thread;
    const SDK::OpenLedger m_books{[this] { return GetLedger(); }};
};

}  // namespace Engine
