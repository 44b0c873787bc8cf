#pragma once

#include "process_collect/ProcsFullTask.h"

#include <map>
#include <memory>

namespace ProcessCollect {

class ProcessCollector;

/// "procs_full_task": hands out the collector's process list. It has no thread of its own.
///
/// Threads: any. Ownership: shares the collector.
class FullTask : public Engine::ProcsFullTask {
public:
    static constexpr const char* NAME = "procs_full_task";

    explicit FullTask(std::shared_ptr<ProcessCollector> collector);

    void GetProcsMap(
        std::map<int, std::shared_ptr<Engine::ProcsMessage::procInfo>>& procs) override;

private:
    const std::shared_ptr<ProcessCollector> m_collector;
};

}  // namespace ProcessCollect
