#pragma once

#include "ProcReader.h"
#include "ProcessEvent.h"
#include "ProcessImage.h"
#include "process_collect/ProcsMessage.h"
#include "sdk/Mutex.h"
#include "sdk/ProcessUtils.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

namespace ProcessCollect {

/// All processes that live, and those that ended in the last minute: whoever asks about a process
/// that lived for a millisecond still gets an answer.
///
/// A process's parent is the one that forked it for as long as that one is in the table, ended or
/// not; SetParent gives it the kernel's current parent afterwards. Where another process has got
/// the parent's pid meanwhile, init is said to be the parent until then: so nobody is his own
/// ancestor.
///
/// Invariants: each pid has one entry at the most. Each entry of an ended process has its place in
/// m_ended, which is in the order of the ends and never longer than the limit; a place whose pid
/// was used again is stale and skipped. An ended process never comes back: only another one with
/// its pid does, and that has another start.
///
/// Threads: any function on any thread.
class ProcessTable {
public:
    using Info = Engine::ProcsMessage::procInfo;

    /// What an event turned out to be.
    enum class News {
        KNOWN,     ///< news of a process; the record was filled
        STARTED,   ///< the same of a process whose fork was not told
        UNKNOWN,   ///< the end of a process that nothing is known of
        REPEATED,  ///< told before
    };

    /// What a process found in /proc turned out to be.
    enum class Found {
        SAME,     ///< nothing new
        FORKED,   ///< a new process that runs its parent's program; the record was filled
        STARTED,  ///< a new process with a program of its own; the record was filled
        SUSPECT,  ///< it seems to run another program than the table says: look again
        ENDED,    ///< its end has been told already
    };

    /// A living process whose forking parent has left the table.
    struct Orphan {
        int m_pid = 0;
        std::uint64_t m_startTime = 0;
    };

    /// Seconds for which an ended process is kept.
    static constexpr std::int64_t KEEP_SECONDS = 60;

    /// @param maxEnded  ended processes kept at the most; the oldest go first, which is counted and
    ///                  logged
    explicit ProcessTable(std::size_t maxEnded);

    /// Takes in an event.
    /// @param now   seconds of a clock that never runs backwards
    /// @param info  filled with a copy of the process's record unless the result is REPEATED
    News Apply(const ProcessEvent& event, std::int64_t now, Info& info);

    /// Answers the SDK's look-ups. @return false when the pid is not known
    bool Lookup(int pid, SDK::ProcessUtils::procRecord& record) const;

    /// Adds a copy of every living process; nothing before the first scan has ended.
    void Snapshot(std::map<int, std::shared_ptr<Info>>& procs) const;

    /// Number of the last change. Ask before reading /proc, and give it to Merge.
    std::uint64_t Sequence() const;

    /// A scan of /proc: BeginScan, Merge for each process found, EndScan. Events may be applied all
    /// along; what they say counts more than what /proc showed before.
    void BeginScan();
    Found Merge(const ProcSnapshot& found, std::uint64_t sequence, Info& info);
    /// @return the processes that have ended without an event
    std::vector<Info> EndScan(std::int64_t now);

    /// Second look at a SUSPECT. @return true when it runs another program, which is now known and
    /// copied to info
    bool ConfirmExec(const ProcSnapshot& found, std::uint64_t sequence, Info& info);

    /// Forgets the processes that ended KEEP_SECONDS ago.
    /// @return those who lost their forking parent by it
    std::vector<Orphan> Purge(std::int64_t now);

    /// Gives an orphan its new parent.
    void SetParent(const Orphan& orphan, int parentPid);

    std::size_t LiveCount() const;
    std::size_t EndedCount() const;

    /// Ended processes forgotten early because of the limit.
    std::uint64_t ForgottenEarly() const;

private:
    struct Entry {
        std::uint64_t m_startTime = 0;
        std::uint64_t m_changed = 0;  // m_sequence of the last event
        std::uint64_t m_end = 0;      // m_ends at its end
        ProcessImagePtr m_image;
        int m_parentPid = 0;
        std::uint32_t m_scan = 0;  // the last scan that saw it or began before it did
        bool m_ended = false;
        bool m_hadChildren = false;
        bool m_execTold = false;  // a scan told of the program before the event did
    };

    struct Ended {
        int m_pid = 0;
        std::uint64_t m_end = 0;
        std::int64_t m_at = 0;
    };

    using Entries = std::unordered_map<int, Entry>;

    News ApplyFork(const ProcessEvent& event, Info& info) SDK_REQUIRES(m_mutex);
    News ApplyExec(const ProcessEvent& event, Info& info) SDK_REQUIRES(m_mutex);
    News ApplyExit(const ProcessEvent& event, std::int64_t now, Info& info) SDK_REQUIRES(m_mutex);
    Entry* Find(int pid) SDK_REQUIRES(m_mutex);
    const Entry* Find(int pid) const SDK_REQUIRES(m_mutex);
    bool LostParent(const Entry& entry) const SDK_REQUIRES(m_mutex);
    int ParentPid(const Entry& entry) const SDK_REQUIRES(m_mutex);
    Entry& Renew(int pid, std::uint64_t startTime, int parentPid) SDK_REQUIRES(m_mutex);
    void End(int pid, Entry& entry, std::int64_t now) SDK_REQUIRES(m_mutex);
    bool ForgetOldest() SDK_REQUIRES(m_mutex);
    void Fill(int pid, const Entry& entry, Info& info) const SDK_REQUIRES(m_mutex);
    void MarkParents() SDK_REQUIRES(m_mutex);

    const std::size_t m_maxEnded;
    mutable SDK::Mutex m_mutex;
    Entries m_entries SDK_GUARDED_BY(m_mutex);
    std::deque<Ended> m_ended SDK_GUARDED_BY(m_mutex);
    std::size_t m_endedCount SDK_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_ends SDK_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_sequence SDK_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_forgottenEarly SDK_GUARDED_BY(m_mutex) = 0;
    std::uint32_t m_scan SDK_GUARDED_BY(m_mutex) = 0;
    bool m_scanned SDK_GUARDED_BY(m_mutex) = false;
    bool m_limitLogged SDK_GUARDED_BY(m_mutex) = false;
    bool m_parentsLeft SDK_GUARDED_BY(m_mutex) = false;  // entries with children were dropped
};

}  // namespace ProcessCollect
