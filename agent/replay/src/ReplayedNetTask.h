#pragma once

#include "RecordedEvent.h"
#include "net_collect/NetProcsFullTask.h"
#include "sdk/Mutex.h"

namespace Replay {

/// "netproc_full_task" of a replay: the sockets that were open on the recorded host at the moment.
///
/// Threads: any.
class ReplayedNetTask : public Engine::NetProcsFullTask {
public:
    ReplayedNetTask();
    ~ReplayedNetTask() override;

    void GetNetCacheMap(Agent::SocketMap& table) override;

    /// Takes a change of the table in.
    void Apply(const Agent::RecordedEvent& change);

    /// Closes all sockets. For the end.
    void Clear();

private:
    SDK::Mutex m_mutex;
    Agent::SocketMap m_table SDK_GUARDED_BY(m_mutex);
};

}  // namespace Replay
