#pragma once

#include "RecordedProcesses.h"
#include "process_collect/ProcsFullTask.h"

namespace Replay {

/// "procs_full_task" of a replay: the processes that lived on the recorded host at the moment.
///
/// Ownership: the processes stay the caller's.
class ReplayedFullTask : public Engine::ProcsFullTask {
public:
    explicit ReplayedFullTask(const RecordedProcesses& processes);
    ~ReplayedFullTask() override;

    void GetProcsMap(RecordedProcesses::Processes& procs) override;

private:
    const RecordedProcesses& m_processes;
};

}  // namespace Replay
