#include "FullTask.h"

#include "ProcessCollector.h"

#include <utility>

namespace ProcessCollect {

namespace {

// Nobody sends it anything; an inbox must hold at least one message.
constexpr unsigned int kInboxCapacity = 1;

}  // namespace

FullTask::FullTask(std::shared_ptr<ProcessCollector> collector)
    : Engine::ProcsFullTask(NAME, "", Framework::TaskCondition::RESIDENT_TASK, kInboxCapacity),
      m_collector(std::move(collector)) {}

void FullTask::GetProcsMap(std::map<int, std::shared_ptr<Engine::ProcsMessage::procInfo>>& procs) {
    m_collector->Snapshot(procs);
}

}  // namespace ProcessCollect
