#pragma once

#include "framework/Task.h"
#include "process_collect/ProcsMessage.h"

#include <map>
#include <memory>

namespace Engine {

/// "procs_full_task": all processes that live now.
///
/// Threads: GetProcsMap may be called on any thread.
class ProcsFullTask : public Framework::Task {
public:
    using Framework::Task::Task;

    /// Fills the map with a copy of every live process, by pid. The copies are the caller's.
    /// It stays empty until the collector has read the process list once.
    virtual void GetProcsMap(std::map<int, std::shared_ptr<ProcsMessage::procInfo>>& procs) = 0;
};

}  // namespace Engine
