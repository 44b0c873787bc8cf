#include "ReplayedFullTask.h"

namespace Replay {

namespace {

// Nobody sends it anything, and an inbox must hold at least one message.
constexpr unsigned int kInboxCapacity = 1;

}  // namespace

ReplayedFullTask::ReplayedFullTask(const RecordedProcesses& processes)
    : Engine::ProcsFullTask("procs_full_task", "", Framework::TaskCondition::RESIDENT_TASK,
                            kInboxCapacity),
      m_processes(processes) {}

ReplayedFullTask::~ReplayedFullTask() = default;

void ReplayedFullTask::GetProcsMap(RecordedProcesses::Processes& procs) {
    m_processes.Snapshot(procs);
}

}  // namespace Replay
