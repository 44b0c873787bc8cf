#pragma once

#include "Counters.h"
#include "EventDispatcher.h"
#include "ProcessSource.h"
#include "ProcessTable.h"
#include "sdk/Ledger.h"
#include "sdk/Mutex.h"
#include "sdk/ProcessUtils.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace ProcessCollect {

/// The heart of the module: takes events from a source into the table and on to the subscribers.
///
/// Threads: Pass on one thread; Lookup, Snapshot, Subscribe, Unsubscribe and GetCounters on any.
/// Every one of them first takes in what the kernel has told already, on its own thread, so that an
/// answer is never older than the question.
class ProcessCollector {
public:
    using Info = ProcessTable::Info;

    /// Bounds of the memory used.
    struct Limits {
        std::size_t m_maxEnded = 16384;  ///< ended processes kept for look-ups
        std::size_t m_backlog = 65536;   ///< events kept for a subscriber whose inbox is full
    };

    /// @param source  started already
    ProcessCollector(std::unique_ptr<ProcessSource> source, const Limits& limits);
    ~ProcessCollector();
    ProcessCollector(const ProcessCollector&) = delete;
    ProcessCollector& operator=(const ProcessCollector&) = delete;

    /// Reads the process list, while the source tells already what happens meanwhile.
    /// @return false when it cannot be read (logged)
    bool Start();

    /// Detaches the source and writes the books to the log. Harmless when it was not started.
    void Stop();

    /// Readable when Pass is worth calling.
    int Descriptor() const;

    /// Takes in events, delivers them, and repairs the table after a loss.
    /// @return milliseconds after which it wants to be called again, event or not
    int Pass();

    /// Sends events of a type to an inbox from now on, or no longer. See EventDispatcher.
    bool Subscribe(unsigned int type, const std::shared_ptr<Framework::Inbox>& inbox);
    void Unsubscribe(unsigned int type, const std::shared_ptr<Framework::Inbox>& inbox);

    /// What is known of a process, ended a short while ago or not. @return false: nothing
    bool Lookup(int pid, SDK::ProcessUtils::procRecord& record);

    /// Adds a copy of every living process; nothing before Start has read the list.
    void Snapshot(std::map<int, std::shared_ptr<Info>>& procs);

    Counters GetCounters();

    /// The same as a ledger, for who does not know this module.
    SDK::Ledger GetLedger();

    std::string SourceName() const { return m_source->Name(); }

    /// Times the process list was read again after a loss.
    std::uint64_t Rescans() const { return m_rescans.load(std::memory_order_relaxed); }

    /// Look-ups so far, and those of processes that the table did not know: never told of, or ended
    /// too long ago. Those are left to /proc.
    std::uint64_t Lookups() const { return m_lookups.load(std::memory_order_relaxed); }
    std::uint64_t UnknownLookups() const {
        return m_unknownLookups.load(std::memory_order_relaxed);
    }

private:
    std::size_t Drain() SDK_REQUIRES(m_mutex);
    std::size_t DrainLocked() SDK_EXCLUDES(m_mutex);
    void HandleEvent(const ProcessEvent& event, std::int64_t now) SDK_REQUIRES(m_mutex);
    void LogBooks() SDK_REQUIRES(m_mutex);
    bool Scan(bool tell) SDK_EXCLUDES(m_mutex);
    void MergeAll(const std::vector<int>& pids, bool tell, std::vector<int>& suspects)
        SDK_EXCLUDES(m_mutex);
    void LookAgain(const std::vector<int>& suspects) SDK_EXCLUDES(m_mutex);
    void Tell(ProcessTable::Found found, const Info& info) SDK_EXCLUDES(m_mutex);
    std::size_t RescanAfterLoss(std::int64_t now) SDK_EXCLUDES(m_mutex);
    void Purge(std::int64_t now) SDK_EXCLUDES(m_mutex);

    const std::unique_ptr<ProcessSource> m_source;
    ProcessTable m_table;
    SDK::Mutex m_mutex;  // taken before the table's own
    EventDispatcher m_dispatcher SDK_GUARDED_BY(m_mutex);
    bool m_started SDK_GUARDED_BY(m_mutex) = false;
    std::uint64_t m_lost SDK_GUARDED_BY(m_mutex) = 0;  // of the source, entered in the books
    std::size_t m_undelivered SDK_GUARDED_BY(m_mutex) = 0;
    // Only the thread of Pass:
    std::uint64_t m_lostAtScan = 0;  // m_lost when the process list was last read
    std::int64_t m_lastLoss = 0;
    std::int64_t m_nextRescan = 0;
    std::int64_t m_nextPurge = 0;
    std::atomic<std::uint64_t> m_rescans{0};
    std::atomic<std::uint64_t> m_lookups{0};
    std::atomic<std::uint64_t> m_unknownLookups{0};
};

}  // namespace ProcessCollect
