#include "ProcessCollector.h"

#include "ProcReader.h"
#include "ProcessCollectLog.h"
#include "sdk/TimeUtils.h"

#include <algorithm>
#include <utility>

namespace ProcessCollect {

namespace {

// SDK::TimeUtils counts hundredths of a second.
constexpr std::int64_t kTicksPerSecond = 100;

// Events delivered together: the subscribers start to work while a long backlog is still read.
constexpr std::size_t kBatch = 128;

// Processes read from /proc between two looks at the source, so that a scan of thousands does not
// let the source run over.
constexpr std::size_t kScanBatch = 64;

// How soon a subscriber whose inbox was full is tried again.
constexpr int kRetryMs = 10;

// Ended processes are forgotten in passes of this many seconds.
constexpr std::int64_t kPurgeSeconds = 5;

// A source that loses events all the time must not keep the collector busy with /proc.
constexpr std::int64_t kRescanSeconds = 1;

// Losses this far apart are two bursts, and each is logged.
constexpr std::int64_t kBurstSeconds = 10;

std::int64_t Now() {
    return static_cast<std::int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed()) / kTicksPerSecond;
}

}  // namespace

ProcessCollector::ProcessCollector(std::unique_ptr<ProcessSource> source, const Limits& limits)
    : m_source(std::move(source)), m_table(limits.m_maxEnded), m_dispatcher(limits.m_backlog) {}

ProcessCollector::~ProcessCollector() { Stop(); }

bool ProcessCollector::Start() {
    {
        const SDK::LockGuard lock(m_mutex);
        m_started = true;
    }
    if (!Scan(false)) {
        return false;
    }
    SDK::LogInformation(Logger(), "Process events come from source(%s), %lu processes live.",
                        m_source->Name(), static_cast<unsigned long>(m_table.LiveCount()));
    return true;
}

void ProcessCollector::Stop() {
    const SDK::LockGuard lock(m_mutex);
    if (m_started) {
        Drain();
        m_started = false;
        LogBooks();
        m_source->Stop();
    }
}

int ProcessCollector::Descriptor() const { return m_source->Descriptor(); }

int ProcessCollector::Pass() {
    const std::int64_t now = Now();
    std::size_t drained = RescanAfterLoss(now);
    Purge(now);
    const SDK::LockGuard lock(m_mutex);
    drained += Drain();
    int sleepMs = m_source->PrepareSleep(drained);
    // An event may have slipped in before the source knew that the reader goes to sleep.
    if (drained == 0 && Drain() != 0) {
        sleepMs = m_source->PrepareSleep(1);
    }
    return m_dispatcher.HasBacklog() ? std::min(sleepMs, kRetryMs) : sleepMs;
}

bool ProcessCollector::Subscribe(unsigned int type,
                                 const std::shared_ptr<Framework::Inbox>& inbox) {
    const SDK::LockGuard lock(m_mutex);
    Drain();
    return m_dispatcher.Subscribe(type, inbox);
}

void ProcessCollector::Unsubscribe(unsigned int type,
                                   const std::shared_ptr<Framework::Inbox>& inbox) {
    const SDK::LockGuard lock(m_mutex);
    Drain();
    m_dispatcher.Unsubscribe(type, inbox);
}

bool ProcessCollector::Lookup(int pid, SDK::ProcessUtils::procRecord& record) {
    // Whoever names a process has been told of it by something that the process did after its
    // start. That start is in the source by now, so nothing has to be waited for.
    DrainLocked();
    const bool known = m_table.Lookup(pid, record);
    m_lookups.fetch_add(1, std::memory_order_relaxed);
    m_unknownLookups.fetch_add(known ? 0 : 1, std::memory_order_relaxed);
    return known;
}

void ProcessCollector::Snapshot(std::map<int, std::shared_ptr<Info>>& procs) {
    DrainLocked();
    m_table.Snapshot(procs);
}

Counters ProcessCollector::GetCounters() {
    const SDK::LockGuard lock(m_mutex);
    Drain();
    return m_dispatcher.GetCounters();
}

SDK::Ledger ProcessCollector::GetLedger() {
    const SDK::LockGuard lock(m_mutex);
    Drain();
    const Counters counters = m_dispatcher.GetCounters();
    SDK::Ledger books;
    books.m_name = "process_events";
    books.m_by = SourceName();
    books.m_seen = counters.m_seen;
    books.m_delivered = counters.m_delivered;
    books.m_waiting = counters.m_waiting;
    books.m_filtered = {{"unwanted", counters.m_filteredUnwanted},
                        {"repeated", counters.m_filteredRepeated}};
    books.m_lost = {{"in_kernel", counters.m_lostInKernel},
                    {"behind", counters.m_lostBehind},
                    {"with_subscriber", counters.m_lostGone}};
    books.m_kinds = {{"fork", counters.m_kinds[Engine::ProcsMessage::FORK]},
                     {"exec", counters.m_kinds[Engine::ProcsMessage::EXEC]},
                     {"exit", counters.m_kinds[Engine::ProcsMessage::EXIT]}};
    books.m_latency = m_dispatcher.Latency();
    return books;
}

std::size_t ProcessCollector::DrainLocked() {
    const SDK::LockGuard lock(m_mutex);
    return Drain();
}

std::size_t ProcessCollector::Drain() {
    if (!m_started) {
        return 0;
    }
    const std::int64_t now = Now();
    // The analysis does not see that the sink is only called from here, under the lock.
    const ProcessSource::Sink sink = [this, now](const ProcessEvent& event) SDK_ANNOTATE(
                                         no_thread_safety_analysis) { HandleEvent(event, now); };
    const std::size_t drained = m_source->Drain(sink);
    const std::uint64_t lost = m_source->LostEvents();
    m_dispatcher.CountLostInKernel(lost - m_lost);
    m_lost = lost;
    m_dispatcher.Flush();
    m_undelivered = 0;
    return drained;
}

void ProcessCollector::HandleEvent(const ProcessEvent& event, std::int64_t now) {
    Info info;
    const ProcessTable::News news = m_table.Apply(event, now, info);
    if (news == ProcessTable::News::REPEATED) {
        m_dispatcher.CountRepeated();
        return;
    }
    if (news == ProcessTable::News::STARTED) {
        m_dispatcher.Dispatch(Engine::ProcsMessage::FORK, event.m_pid, &info);
    }
    m_dispatcher.Dispatch(event.m_type, event.m_pid,
                          news == ProcessTable::News::UNKNOWN ? nullptr : &info, event.m_time);
    if (++m_undelivered >= kBatch) {
        m_dispatcher.Flush();
        m_undelivered = 0;
    }
}

bool ProcessCollector::Scan(bool tell) {
    std::vector<int> pids;
    std::vector<int> suspects;
    m_table.BeginScan();
    if (!ProcReader::ListPids(pids)) {
        return false;
    }
    MergeAll(pids, tell, suspects);
    LookAgain(suspects);
    const SDK::LockGuard lock(m_mutex);
    // What ended without an event has ended before the list was read; the rest is in the source.
    Drain();
    for (const Info& info : m_table.EndScan(Now())) {
        m_dispatcher.Dispatch(Engine::ProcsMessage::EXIT, info.m_pid, &info);
    }
    m_dispatcher.Flush();
    return true;
}

void ProcessCollector::MergeAll(const std::vector<int>& pids, bool tell,
                                std::vector<int>& suspects) {
    std::size_t read = 0;
    for (const int pid : pids) {
        if (++read % kScanBatch == 0) {
            DrainLocked();
        }
        const std::uint64_t sequence = m_table.Sequence();
        ProcSnapshot snapshot;
        if (!ProcReader::Read(pid, snapshot)) {
            continue;
        }
        Info info;
        const ProcessTable::Found found = m_table.Merge(snapshot, sequence, info);
        if (found == ProcessTable::Found::SUSPECT) {
            suspects.push_back(pid);
        } else if (tell) {
            Tell(found, info);
        }
    }
}

void ProcessCollector::Tell(ProcessTable::Found found, const Info& info) {
    const SDK::LockGuard lock(m_mutex);
    if (found == ProcessTable::Found::FORKED || found == ProcessTable::Found::STARTED) {
        m_dispatcher.Dispatch(Engine::ProcsMessage::FORK, info.m_pid, &info);
    }
    if (found == ProcessTable::Found::STARTED) {
        m_dispatcher.Dispatch(Engine::ProcsMessage::EXEC, info.m_pid, &info);
    }
}

void ProcessCollector::LookAgain(const std::vector<int>& suspects) {
    // /proc shows a new program a moment before the source tells of it; by now it has told.
    DrainLocked();
    for (const int pid : suspects) {
        const std::uint64_t sequence = m_table.Sequence();
        ProcSnapshot snapshot;
        Info info;
        if (ProcReader::Read(pid, snapshot) && m_table.ConfirmExec(snapshot, sequence, info)) {
            const SDK::LockGuard lock(m_mutex);
            m_dispatcher.Dispatch(Engine::ProcsMessage::EXEC, pid, &info);
        }
    }
}

std::size_t ProcessCollector::RescanAfterLoss(std::int64_t now) {
    std::uint64_t lost = 0;
    std::size_t drained = 0;
    {
        const SDK::LockGuard lock(m_mutex);
        drained = Drain();
        lost = m_lost;
    }
    if (lost == m_lostAtScan || now < m_nextRescan) {
        return drained;
    }
    if (m_lastLoss == 0 || now - m_lastLoss >= kBurstSeconds) {
        SDK::LogWarning(Logger(),
                        "Source(%s) lost process events, %lu so far. The process list is read "
                        "again.",
                        m_source->Name(), static_cast<unsigned long>(lost));
    }
    m_lastLoss = now;
    m_lostAtScan = lost;
    m_nextRescan = now + kRescanSeconds;
    if (Scan(true)) {
        m_rescans.fetch_add(1, std::memory_order_relaxed);
    }
    return drained;
}

void ProcessCollector::Purge(std::int64_t now) {
    if (now < m_nextPurge) {
        return;
    }
    m_nextPurge = now + kPurgeSeconds;
    for (const ProcessTable::Orphan& orphan : m_table.Purge(now)) {
        ProcStat stat;
        if (ProcStatReader::Read(orphan.m_pid, stat)) {
            m_table.SetParent(orphan, stat.m_parentPid);
        }
    }
}

void ProcessCollector::LogBooks() {
    const Counters books = m_dispatcher.GetCounters();
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long>(value); };
    SDK::LogInformation(Logger(),
                        "Process events of source(%s): %lu seen, %lu delivered, %lu unwanted, %lu "
                        "repeated, %lu lost in the kernel, %lu lost behind, %lu lost with their "
                        "subscriber, %lu waiting.",
                        m_source->Name(), number(books.m_seen), number(books.m_delivered),
                        number(books.m_filteredUnwanted), number(books.m_filteredRepeated),
                        number(books.m_lostInKernel), number(books.m_lostBehind),
                        number(books.m_lostGone), number(books.m_waiting));
    SDK::LogInformation(Logger(), "Look-ups of processes: %lu, %lu of processes not in the table.",
                        number(Lookups()), number(UnknownLookups()));
    for (const LossCount& loss : m_source->Losses()) {
        if (loss.m_count != 0) {
            SDK::LogWarning(Logger(), "Source(%s) %s %lu times: %s", m_source->Name(),
                            std::string(loss.m_eventLost ? "lost an event" : "missed a part"),
                            number(loss.m_count), loss.m_reason);
        }
    }
}

}  // namespace ProcessCollect
