#pragma once

#include "RecordedEvent.h"
#include "process_collect/ProcsMessage.h"
#include "sdk/Mutex.h"
#include "sdk/ProcessUtils.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace Replay {

/// The processes of the recorded host as they were at a moment, and those that had ended in the
/// minute before: what the process collector of a live agent knows.
///
/// Threads: any.
class RecordedProcesses {
public:
    using Info = Engine::ProcsMessage::procInfo;
    using Processes = std::map<int, std::shared_ptr<Info>>;

    /// For how long one that ended is known, as with the process collector.
    static constexpr std::int64_t KEEP_US = 60000000;

    /// A process started, runs another program, or was there from the beginning.
    void Put(const Info& info);

    /// A process ended. @return a copy of what was known of it; null when nothing was
    std::shared_ptr<Info> End(int pid, std::int64_t nowUs);

    /// Adds a copy of every living process.
    void Snapshot(Processes& processes) const;

    /// Answers the SDK's look-ups. A process that is not known is one without name and parent,
    /// which the detection treats alike: it must not be looked for on the host that replays.
    /// @return true
    bool Lookup(int pid, SDK::ProcessUtils::procRecord& record, std::int64_t nowUs) const;

    /// What must have happened for those who live to be the ones of a later snapshot: the same as
    /// the collector tells after it lost events. It has not been entered here yet.
    std::vector<Agent::RecordedEvent> Difference(const std::vector<Info>& later) const;

private:
    struct Entry {
        std::shared_ptr<const Info> m_info;
        std::int64_t m_endedUs = -1;  // -1: it lives
    };

    void Forget(std::int64_t nowUs) SDK_REQUIRES(m_mutex);

    mutable SDK::Mutex m_mutex;
    std::map<int, Entry> m_entries SDK_GUARDED_BY(m_mutex);
    std::deque<std::pair<std::int64_t, int>> m_ended SDK_GUARDED_BY(m_mutex);  // when, and the pid
};

}  // namespace Replay
