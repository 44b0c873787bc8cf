#pragma once

#include "framework/Module.h"
#include "sdk/Ledger.h"

#include <Poco/AutoPtr.h>

#include <memory>

namespace NetCollect {

class NetFullTask;
class SocketTable;

/// The network collector as a module.
///
/// Configuration: "net_collect.holders" (auto, bpf or proc; auto).
///
/// Threads and ownership: see Framework::Module. It shares the table with its task.
class NetCollectModule : public Framework::Module {
public:
    NetCollectModule();
    ~NetCollectModule() override;

    /// @return 0; -1 when no source of holders works or the task is refused
    int Init() override;

    /// Stops, and writes the books to the log.
    int UnInit() override;

private:
    void LogBooks() const;

    std::shared_ptr<SocketTable> m_sockets;
    std::unique_ptr<SDK::OpenLedger> m_books;
    // A Poco task is counted; this reference is the module's.
    Poco::AutoPtr<NetFullTask> m_task;
};

}  // namespace NetCollect
