#pragma once

#include "framework/Inbox.h"
#include "framework/Task.h"
#include "process_collect/ProcsMessage.h"
#include "sdk/Mutex.h"

#include <map>
#include <memory>
#include <set>

namespace Replay {

/// "procs_real_task" of a replay: tells its subscribers what processes did.
///
/// Threads: as Framework::Task; Tell on any.
class ReplayedRealTask : public Framework::Task {
public:
    ReplayedRealTask();
    ~ReplayedRealTask() override;

    /// Takes a subscription, or its end. @return 1: nothing is queued
    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override;

    /// Sends an event to those who asked for its kind.
    /// @param info  copied for each; may be null
    void Tell(Engine::ProcsMessage::Flag flag, int pid, const Engine::ProcsMessage::procInfo* info);

private:
    SDK::Mutex m_mutex;
    std::map<std::shared_ptr<Framework::Inbox>, std::set<unsigned int>> m_subscribers
        SDK_GUARDED_BY(m_mutex);
};

}  // namespace Replay
