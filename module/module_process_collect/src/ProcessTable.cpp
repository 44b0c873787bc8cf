#include "ProcessTable.h"

#include "ProcessCollectLog.h"

#include <utility>

namespace ProcessCollect {

namespace {

// Adopts the children of processes that end, unless somebody nearer asked to.
constexpr int kInitPid = 1;

// /proc counts in ticks, the kernel's events in nanoseconds: the same process must compare equal.
std::uint64_t Ticks(std::uint64_t startTime) {
    return startTime / ProcStatReader::TickNanoseconds();
}

// A time that was not told fits any process.
bool SameStart(std::uint64_t one, std::uint64_t other) {
    return one == 0 || other == 0 || Ticks(one) == Ticks(other);
}

// Whether a scan told of the run that an event tells of. Without randomised addresses two runs may
// bear the same marks, hence the arguments.
bool SameRun(const ProcessImage& one, const ProcessImage& other) {
    return one.m_marks.Known() && one.m_marks.Matches(other.m_marks) &&
           one.m_cmdline == other.m_cmdline;
}

ProcessImagePtr EmptyImage(std::string_view name) {
    return MakeImageAtExec(name, std::string_view(), std::string_view(), RunMarks());
}

}  // namespace

ProcessTable::ProcessTable(std::size_t maxEnded) : m_maxEnded(maxEnded) {}

ProcessTable::News ProcessTable::Apply(const ProcessEvent& event, std::int64_t now, Info& info) {
    const SDK::LockGuard lock(m_mutex);
    ++m_sequence;
    switch (event.m_type) {
        case Engine::ProcsMessage::FORK:
            return ApplyFork(event, info);
        case Engine::ProcsMessage::EXEC:
            return ApplyExec(event, info);
        default:
            return ApplyExit(event, now, info);
    }
}

bool ProcessTable::Lookup(int pid, SDK::ProcessUtils::procRecord& record) const {
    const SDK::LockGuard lock(m_mutex);
    const Entry* entry = Find(pid);
    // An end without a beginning says nothing that a look into /proc would not say better.
    if (entry == nullptr || entry->m_image == nullptr) {
        return false;
    }
    record.m_status.m_pid = pid;
    record.m_status.m_ppid = ParentPid(*entry);
    record.m_status.m_name = entry->m_image->m_name;
    record.m_cmdline = entry->m_image->m_cmdline;
    return true;
}

void ProcessTable::Snapshot(std::map<int, std::shared_ptr<Info>>& procs) const {
    const SDK::LockGuard lock(m_mutex);
    if (!m_scanned) {
        return;
    }
    for (const auto& [pid, entry] : m_entries) {
        if (!entry.m_ended) {
            auto info = std::make_shared<Info>();
            Fill(pid, entry, *info);
            procs[pid] = std::move(info);
        }
    }
}

std::uint64_t ProcessTable::Sequence() const {
    const SDK::LockGuard lock(m_mutex);
    return m_sequence;
}

void ProcessTable::BeginScan() {
    const SDK::LockGuard lock(m_mutex);
    ++m_scan;
}

ProcessTable::Found ProcessTable::Merge(const ProcSnapshot& found, std::uint64_t sequence,
                                        Info& info) {
    const SDK::LockGuard lock(m_mutex);
    Entry* known = Find(found.m_pid);
    if (known != nullptr && SameStart(known->m_startTime, found.m_startTime)) {
        if (known->m_ended) {
            return Found::ENDED;
        }
        known->m_scan = m_scan;
        if (known->m_changed > sequence || !found.m_image->m_marks.Known()) {
            return Found::SAME;
        }
        return found.m_image->m_marks.Matches(known->m_image->m_marks) ? Found::SAME
                                                                       : Found::SUSPECT;
    }
    Entry& entry = Renew(found.m_pid, found.m_startTime, found.m_parentPid);
    entry.m_image = found.m_image;
    Fill(found.m_pid, entry, info);
    const Entry* parent = Find(found.m_parentPid);
    // In the middle of an exec there are no marks; then the event is still to come.
    const bool forked = !found.m_image->m_marks.Known() ||
                        (parent != nullptr && parent->m_image != nullptr &&
                         parent->m_image->m_marks.Matches(found.m_image->m_marks));
    entry.m_execTold = !forked;
    return forked ? Found::FORKED : Found::STARTED;
}

std::vector<ProcessTable::Info> ProcessTable::EndScan(std::int64_t now) {
    const SDK::LockGuard lock(m_mutex);
    std::vector<Info> vanished;
    for (auto& [pid, entry] : m_entries) {
        if (!entry.m_ended && entry.m_scan != m_scan) {
            vanished.emplace_back();
            Fill(pid, entry, vanished.back());
        }
    }
    for (const Info& info : vanished) {
        End(info.m_pid, m_entries.at(info.m_pid), now);
    }
    MarkParents();
    m_scanned = true;
    return vanished;
}

bool ProcessTable::ConfirmExec(const ProcSnapshot& found, std::uint64_t sequence, Info& info) {
    const SDK::LockGuard lock(m_mutex);
    Entry* entry = Find(found.m_pid);
    if (entry == nullptr || entry->m_ended || entry->m_changed > sequence ||
        !SameStart(entry->m_startTime, found.m_startTime) ||
        entry->m_image->m_marks.Matches(found.m_image->m_marks)) {
        return false;
    }
    entry->m_image = found.m_image;
    entry->m_execTold = true;
    Fill(found.m_pid, *entry, info);
    return true;
}

std::vector<ProcessTable::Orphan> ProcessTable::Purge(std::int64_t now) {
    const SDK::LockGuard lock(m_mutex);
    while (!m_ended.empty() && now - m_ended.front().m_at >= KEEP_SECONDS) {
        ForgetOldest();
    }
    if (m_ended.size() < m_maxEnded / 2) {
        m_limitLogged = false;
    }
    std::vector<Orphan> orphans;
    if (!std::exchange(m_parentsLeft, false)) {
        return orphans;
    }
    for (const auto& [pid, entry] : m_entries) {
        if (!entry.m_ended && entry.m_parentPid > 0 &&
            (Find(entry.m_parentPid) == nullptr || LostParent(entry))) {
            orphans.push_back(Orphan{pid, entry.m_startTime});
        }
    }
    return orphans;
}

void ProcessTable::SetParent(const Orphan& orphan, int parentPid) {
    const SDK::LockGuard lock(m_mutex);
    Entry* entry = Find(orphan.m_pid);
    if (entry != nullptr && !entry->m_ended && entry->m_startTime == orphan.m_startTime) {
        entry->m_parentPid = parentPid;
        Entry* parent = Find(parentPid);
        if (parent != nullptr) {
            parent->m_hadChildren = true;
        }
    }
}

std::size_t ProcessTable::LiveCount() const {
    const SDK::LockGuard lock(m_mutex);
    return m_entries.size() - m_endedCount;
}

std::size_t ProcessTable::EndedCount() const {
    const SDK::LockGuard lock(m_mutex);
    return m_endedCount;
}

std::uint64_t ProcessTable::ForgottenEarly() const {
    const SDK::LockGuard lock(m_mutex);
    return m_forgottenEarly;
}

ProcessTable::News ProcessTable::ApplyFork(const ProcessEvent& event, Info& info) {
    Entry* known = Find(event.m_pid);
    if (known != nullptr && event.m_startTime != 0 &&
        SameStart(known->m_startTime, event.m_startTime)) {
        // A scan was quicker than the event, but only the event knows who forked.
        known->m_startTime = event.m_startTime;
        known->m_parentPid = event.m_parentPid;
        return News::REPEATED;
    }
    Entry& entry = Renew(event.m_pid, event.m_startTime, event.m_parentPid);
    Entry* parent = Find(event.m_parentPid);
    if (parent != nullptr && parent->m_image != nullptr) {
        parent->m_hadChildren = true;
        entry.m_image = parent->m_image;
    } else {
        entry.m_image = EmptyImage(event.m_comm);
    }
    Fill(event.m_pid, entry, info);
    return News::KNOWN;
}

ProcessTable::News ProcessTable::ApplyExec(const ProcessEvent& event, Info& info) {
    Entry* entry = Find(event.m_pid);
    const bool same = entry != nullptr && SameStart(entry->m_startTime, event.m_startTime);
    if (same && entry->m_ended && event.m_startTime != 0) {
        return News::REPEATED;
    }
    const bool isNew = !same || entry->m_ended;
    if (isNew) {
        entry = &Renew(event.m_pid, event.m_startTime, event.m_parentPid);
    } else if (event.m_startTime != 0) {
        entry->m_startTime = event.m_startTime;
    }
    if (entry->m_parentPid == 0) {
        entry->m_parentPid = event.m_parentPid;
    }
    const ProcessImagePtr image =
        MakeImageAtExec(event.m_comm, event.m_exePath, event.m_arguments, event.m_marks);
    const bool repeated = entry->m_execTold && SameRun(*entry->m_image, *image);
    entry->m_image = image;
    entry->m_execTold = false;
    entry->m_changed = m_sequence;
    if (repeated) {
        return News::REPEATED;
    }
    Fill(event.m_pid, *entry, info);
    return isNew ? News::STARTED : News::KNOWN;
}

ProcessTable::News ProcessTable::ApplyExit(const ProcessEvent& event, std::int64_t now,
                                           Info& info) {
    Entry* known = Find(event.m_pid);
    if (known == nullptr) {
        // Kept without an image, so that a scan that saw the process before its end cannot bring
        // it back.
        End(event.m_pid, Renew(event.m_pid, event.m_startTime, 0), now);
        return News::UNKNOWN;
    }
    if (known->m_ended ||
        (event.m_startTime != 0 && Ticks(known->m_startTime) > Ticks(event.m_startTime))) {
        return News::REPEATED;
    }
    Fill(event.m_pid, *known, info);
    End(event.m_pid, *known, now);
    return News::KNOWN;
}

ProcessTable::Entry* ProcessTable::Find(int pid) {
    const auto found = m_entries.find(pid);
    return found == m_entries.end() ? nullptr : &found->second;
}

const ProcessTable::Entry* ProcessTable::Find(int pid) const {
    const auto found = m_entries.find(pid);
    return found == m_entries.end() ? nullptr : &found->second;
}

/// A parent is older than its child; a younger one merely got its pid.
bool ProcessTable::LostParent(const Entry& entry) const {
    const Entry* parent = Find(entry.m_parentPid);
    return parent != nullptr && entry.m_startTime != 0 &&
           Ticks(parent->m_startTime) > Ticks(entry.m_startTime);
}

int ProcessTable::ParentPid(const Entry& entry) const {
    return LostParent(entry) ? kInitPid : entry.m_parentPid;
}

ProcessTable::Entry& ProcessTable::Renew(int pid, std::uint64_t startTime, int parentPid) {
    Entry& entry = m_entries[pid];
    m_parentsLeft = m_parentsLeft || entry.m_hadChildren;
    if (entry.m_ended) {
        --m_endedCount;  // its place in m_ended stays behind, until it is found to be stale
    }
    entry = Entry();
    entry.m_startTime = startTime;
    entry.m_parentPid = parentPid;
    entry.m_changed = m_sequence;
    entry.m_scan = m_scan;
    return entry;
}

void ProcessTable::End(int pid, Entry& entry, std::int64_t now) {
    entry.m_ended = true;
    entry.m_end = ++m_ends;
    ++m_endedCount;
    m_ended.push_back(Ended{pid, m_ends, now});
    if (m_ended.size() <= m_maxEnded) {
        return;
    }
    if (ForgetOldest()) {
        ++m_forgottenEarly;
        if (!std::exchange(m_limitLogged, true)) {
            SDK::LogWarning(Logger(),
                            "More than %lu processes ended within %d seconds. The oldest of them "
                            "are forgotten early, %lu so far.",
                            static_cast<unsigned long>(m_maxEnded), static_cast<int>(KEEP_SECONDS),
                            static_cast<unsigned long>(m_forgottenEarly));
        }
    }
}

bool ProcessTable::ForgetOldest() {
    const Ended oldest = m_ended.front();
    m_ended.pop_front();
    const auto found = m_entries.find(oldest.m_pid);
    if (found == m_entries.end() || !found->second.m_ended || found->second.m_end != oldest.m_end) {
        return false;  // the pid has been used again
    }
    m_parentsLeft = m_parentsLeft || found->second.m_hadChildren;
    m_entries.erase(found);
    --m_endedCount;
    return true;
}

void ProcessTable::Fill(int pid, const Entry& entry, Info& info) const {
    info.m_pid = pid;
    info.m_ppid = ParentPid(entry);
    info.m_startTime = entry.m_startTime;
    if (entry.m_image != nullptr) {
        info.m_name = entry.m_image->m_name;
        info.m_exePath = entry.m_image->m_exePath;
        info.m_cmdline = entry.m_image->m_cmdline;
    }
    const Entry* parent = Find(info.m_ppid);
    if (parent != nullptr && parent->m_image != nullptr) {
        info.m_parentName = parent->m_image->m_name;
    } else {
        info.m_parentName.clear();
    }
}

void ProcessTable::MarkParents() {
    for (const auto& [pid, entry] : m_entries) {
        Entry* parent = Find(entry.m_parentPid);
        if (parent != nullptr) {
            parent->m_hadChildren = true;
        }
    }
}

}  // namespace ProcessCollect
