#include "RecordedProcesses.h"

#include <set>

namespace Replay {

namespace {

using Agent::RecordedEvent;

void Tell(std::vector<RecordedEvent>& events, RecordedEvent::Kind kind,
          const RecordedProcesses::Info& info) {
    RecordedEvent& event = events.emplace_back();
    event.m_kind = kind;
    event.m_process = info;
}

bool SameProgram(const RecordedProcesses::Info& one, const RecordedProcesses::Info& other) {
    return one.m_name == other.m_name && one.m_exePath == other.m_exePath &&
           one.m_cmdline == other.m_cmdline;
}

}  // namespace

void RecordedProcesses::Put(const Info& info) {
    const SDK::LockGuard lock(m_mutex);
    m_entries[info.m_pid] = Entry{std::make_shared<Info>(info)};
}

std::shared_ptr<RecordedProcesses::Info> RecordedProcesses::End(int pid, std::int64_t nowUs) {
    const SDK::LockGuard lock(m_mutex);
    Forget(nowUs);
    const auto found = m_entries.find(pid);
    if (found == m_entries.end() || found->second.m_endedUs >= 0) {
        return nullptr;
    }
    found->second.m_endedUs = nowUs;
    m_ended.emplace_back(nowUs, pid);
    return std::make_shared<Info>(*found->second.m_info);
}

void RecordedProcesses::Forget(std::int64_t nowUs) {
    for (; !m_ended.empty() && nowUs - m_ended.front().first >= KEEP_US; m_ended.pop_front()) {
        const auto found = m_entries.find(m_ended.front().second);
        // The pid may have been used again.
        if (found != m_entries.end() && found->second.m_endedUs == m_ended.front().first) {
            m_entries.erase(found);
        }
    }
}

void RecordedProcesses::Snapshot(Processes& processes) const {
    const SDK::LockGuard lock(m_mutex);
    for (const auto& [pid, entry] : m_entries) {
        if (entry.m_endedUs < 0) {
            processes[pid] = std::make_shared<Info>(*entry.m_info);
        }
    }
}

bool RecordedProcesses::Lookup(int pid, SDK::ProcessUtils::procRecord& record,
                               std::int64_t nowUs) const {
    const SDK::LockGuard lock(m_mutex);
    record = SDK::ProcessUtils::procRecord();
    record.m_status.m_pid = pid;
    const auto found = m_entries.find(pid);
    if (found == m_entries.end() ||
        (found->second.m_endedUs >= 0 && nowUs - found->second.m_endedUs >= KEEP_US)) {
        return true;
    }
    record.m_status.m_ppid = found->second.m_info->m_ppid;
    record.m_status.m_name = found->second.m_info->m_name;
    record.m_cmdline = found->second.m_info->m_cmdline;
    return true;
}

std::vector<RecordedEvent> RecordedProcesses::Difference(const std::vector<Info>& later) const {
    const SDK::LockGuard lock(m_mutex);
    std::vector<RecordedEvent> events;
    std::set<int> living;
    for (const Info& info : later) {
        living.insert(info.m_pid);
        const auto known = m_entries.find(info.m_pid);
        const bool same = known != m_entries.end() && known->second.m_endedUs < 0 &&
                          known->second.m_info->m_startTime == info.m_startTime;
        if (!same) {
            Tell(events, RecordedEvent::Kind::FORK, info);
        }
        if (!same || !SameProgram(*known->second.m_info, info)) {
            Tell(events, RecordedEvent::Kind::EXEC, info);
        }
    }
    for (const auto& [pid, entry] : m_entries) {
        if (entry.m_endedUs < 0 && living.count(pid) == 0) {
            Tell(events, RecordedEvent::Kind::EXIT, *entry.m_info);
        }
    }
    return events;
}

}  // namespace Replay
