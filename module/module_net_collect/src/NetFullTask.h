#pragma once

#include "net_collect/NetProcsFullTask.h"

#include <map>
#include <memory>

namespace NetCollect {

class SocketTable;

/// "netproc_full_task": reads the socket table when it is asked to. It has no thread of its own.
///
/// Threads: any. Ownership: shares the table.
class NetFullTask : public Engine::NetProcsFullTask {
public:
    static constexpr const char* NAME = "netproc_full_task";

    explicit NetFullTask(std::shared_ptr<SocketTable> sockets);

    void GetNetCacheMap(
        std::map<long, std::shared_ptr<Engine::NetProcsMessage::netProcInfo>>& table) override;

private:
    const std::shared_ptr<SocketTable> m_sockets;
};

}  // namespace NetCollect
