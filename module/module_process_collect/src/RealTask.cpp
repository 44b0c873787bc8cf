#include "RealTask.h"

#include "ProcessCollectLog.h"
#include "ProcessCollector.h"
#include "process_collect/ProcsRegistMessage.h"

#include <utility>

namespace ProcessCollect {

namespace {

// Registrations come a handful at a time.
constexpr unsigned int kInboxCapacity = 1024;
constexpr int kMessagesPerPass = 128;

}  // namespace

RealTask::RealTask(std::shared_ptr<ProcessCollector> collector)
    : Framework::Task(NAME, "", Framework::TaskCondition::RESIDENT_TASK, kInboxCapacity),
      m_collector(std::move(collector)) {}

int RealTask::Init() {
    // Pass looks at the source whatever ended the wait.
    return GetEventWaiter().AddEvent(m_collector->Descriptor(), [] {});
}

int RealTask::UnInit() {
    GetEventWaiter().RemoveEvent(m_collector->Descriptor());
    return Framework::Task::UnInit();
}

int RealTask::Run() {
    while (!isCancelled()) {
        const int sleepMs = m_collector->Pass();
        if (GetEventWaiter().WaitAndHandleEvent(sleepMs, 1) == -1) {
            HandleQueuedMsgs(kMessagesPerPass);
        }
    }
    return 0;
}

int RealTask::InterceptMsg(std::shared_ptr<Framework::Message>& message) {
    return HandleSubscription(*message) ? 1 : 0;
}

int RealTask::HandleMsg(const Framework::Message* message) {
    if (!HandleSubscription(*message)) {
        SDK::LogWarning(Logger(), "Task(%s) does not know messages of type(%s).", name(),
                        message->GetMsgType());
    }
    return 0;
}

bool RealTask::HandleSubscription(const Framework::Message& message) {
    const bool starts = message.GetMsgType() == Engine::ProcsRegistMessage::TYPE;
    if (!starts && message.GetMsgType() != Engine::ProcsUnRegistMessage::TYPE) {
        return false;
    }
    const auto& subscription = static_cast<const Engine::ProcsSubscription&>(message);
    const std::shared_ptr<Framework::Inbox>& inbox = subscription.GetInbox();
    const auto type = static_cast<int>(subscription.GetType());
    if (!starts) {
        m_collector->Unsubscribe(subscription.GetType(), inbox);
        SDK::LogInformation(Logger(), "Task(%s) no longer gets process events of type(%d).",
                            inbox->Owner(), type);
    } else if (m_collector->Subscribe(subscription.GetType(), inbox)) {
        SDK::LogInformation(Logger(), "Task(%s) gets process events of type(%d).", inbox->Owner(),
                            type);
    } else {
        SDK::LogError(Logger(), "Task(%s) asks for process events of type(%d), which is unknown.",
                      inbox->Owner(), type);
    }
    return true;
}

}  // namespace ProcessCollect
