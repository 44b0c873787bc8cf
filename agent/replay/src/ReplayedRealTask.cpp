#include "ReplayedRealTask.h"

#include "process_collect/ProcsRegistMessage.h"

namespace Replay {

namespace {

using Engine::ProcsMessage;

// Nothing is queued, and an inbox must hold at least one message.
constexpr unsigned int kInboxCapacity = 1;

}  // namespace

ReplayedRealTask::ReplayedRealTask()
    : Framework::Task("procs_real_task", "", Framework::TaskCondition::RESIDENT_TASK,
                      kInboxCapacity) {}

ReplayedRealTask::~ReplayedRealTask() = default;

int ReplayedRealTask::InterceptMsg(std::shared_ptr<Framework::Message>& message) {
    const auto* request = dynamic_cast<const Engine::ProcsSubscription*>(message.get());
    if (request != nullptr) {
        const SDK::LockGuard lock(m_mutex);
        std::set<unsigned int>& types = m_subscribers[request->GetInbox()];
        if (request->GetMsgType() == Engine::ProcsRegistMessage::TYPE) {
            types.insert(request->GetType());
        } else {
            types.erase(request->GetType());
        }
    }
    return 1;
}

void ReplayedRealTask::Tell(ProcsMessage::Flag flag, int pid, const ProcsMessage::procInfo* info) {
    const SDK::LockGuard lock(m_mutex);
    for (const auto& [inbox, types] : m_subscribers) {
        if (types.count(flag) != 0) {
            inbox->Send(std::make_shared<ProcsMessage>(
                flag, pid,
                info == nullptr ? nullptr : std::make_shared<ProcsMessage::procInfo>(*info)));
        }
    }
}

}  // namespace Replay
