#include "ReplayedNetTask.h"

#include "SocketChanges.h"

#include <memory>

namespace Replay {

namespace {

using Info = Engine::ProcsMessage::procInfo;
using Socket = Engine::NetProcsMessage::netProcInfo;

// Nobody sends it anything, and an inbox must hold at least one message.
constexpr unsigned int kInboxCapacity = 1;

}  // namespace

ReplayedNetTask::ReplayedNetTask()
    : Engine::NetProcsFullTask("netproc_full_task", "", Framework::TaskCondition::RESIDENT_TASK,
                               kInboxCapacity) {}

ReplayedNetTask::~ReplayedNetTask() = default;

void ReplayedNetTask::GetNetCacheMap(Agent::SocketMap& table) {
    const SDK::LockGuard lock(m_mutex);
    for (const auto& [inode, socket] : m_table) {
        // The receiver may write to it.
        auto copy = std::make_shared<Socket>(*socket);
        for (auto& [pid, info] : copy->m_processes) {
            info = std::make_shared<Info>(*info);
        }
        table[inode] = std::move(copy);
    }
}

void ReplayedNetTask::Apply(const Agent::RecordedEvent& change) {
    const SDK::LockGuard lock(m_mutex);
    Agent::SocketChanges::Apply(change, m_table);
}

void ReplayedNetTask::Clear() {
    const SDK::LockGuard lock(m_mutex);
    m_table.clear();
}

}  // namespace Replay
