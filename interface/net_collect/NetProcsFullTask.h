#pragma once

#include "framework/Task.h"
#include "net_collect/NetProcsMessage.h"

#include <map>
#include <memory>

namespace Engine {

/// "netproc_full_task": all listening TCP and bound UDP sockets of the host, read when asked for.
///
/// Threads: GetNetCacheMap may be called on any thread.
class NetProcsFullTask : public Framework::Task {
public:
    using Framework::Task::Task;

    /// Fills the map with the sockets of every network namespace that a process lives in.
    /// @param table  by the socket's inode number; the records are the caller's
    virtual void GetNetCacheMap(
        std::map<long, std::shared_ptr<NetProcsMessage::netProcInfo>>& table) = 0;
};

}  // namespace Engine
