#pragma once

#include "framework/Module.h"
#include "sdk/Ledger.h"

#include <Poco/AutoPtr.h>

#include <memory>

namespace ProcessCollect {

class FullTask;
class ProcessCollector;
class RealTask;

/// The process collector as a module: starts a source, the two tasks, and the SDK's look-ups.
///
/// Configuration: "process_collect.source" (auto, bpf or connector; auto),
/// "process_collect.ring_bytes" (the eBPF ring buffer), "process_collect.backlog" (events kept for
/// a subscriber that is behind).
///
/// Threads and ownership: see Framework::Module. It shares the collector with its tasks.
class ProcessCollectModule : public Framework::Module {
public:
    ProcessCollectModule();
    ~ProcessCollectModule() override;

    /// @return 0; -1 when no source works, the process list cannot be read, or a task is refused
    int Init() override;
    int UnInit() override;

    /// The collector while the module is started, else null. For tests and the status.
    const std::shared_ptr<ProcessCollector>& GetCollector() const { return m_collector; }

private:
    bool StartCollector();
    bool StartTasks();
    void OpenBooks();

    std::shared_ptr<ProcessCollector> m_collector;
    std::unique_ptr<SDK::OpenLedger> m_books;
    // A Poco task is counted; these references are the module's.
    Poco::AutoPtr<RealTask> m_realTask;
    Poco::AutoPtr<FullTask> m_fullTask;
};

}  // namespace ProcessCollect
