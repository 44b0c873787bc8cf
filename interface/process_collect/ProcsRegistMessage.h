#pragma once

#include "framework/Message.h"
#include "framework/Task.h"

#include <memory>
#include <utility>

namespace Engine {

/// What a registration and its end have in common: a type of event and the inbox that it goes to.
/// The inbox is shared, so a subscriber may be gone before its message is read.
class ProcsSubscription : public Framework::Message {
public:
    /// Which events: 1 fork, 2 exec, 3 exit (ProcsMessage::Flag).
    unsigned int GetType() const { return m_type; }

    /// Where they go. Never null.
    const std::shared_ptr<Framework::Inbox>& GetInbox() const { return m_inbox; }

protected:
    ProcsSubscription(const char* messageType, unsigned int type, const Framework::Task* task)
        : Framework::Message(messageType), m_type(type), m_inbox(task->GetInbox()) {}

private:
    const unsigned int m_type;
    const std::shared_ptr<Framework::Inbox> m_inbox;
};

/// Asks "procs_real_task" to send a task the process events of one type, from now on.
class ProcsRegistMessage : public ProcsSubscription {
public:
    static constexpr const char* TYPE = "procs_regist";

    /// @param task  the subscriber; must not be null
    ProcsRegistMessage(unsigned int type, const Framework::Task* task)
        : ProcsSubscription(TYPE, type, task) {}
};

/// Ends a registration. Events already queued stay queued.
class ProcsUnRegistMessage : public ProcsSubscription {
public:
    static constexpr const char* TYPE = "procs_unregist";

    /// @param task  the subscriber; must not be null
    ProcsUnRegistMessage(unsigned int type, const Framework::Task* task)
        : ProcsSubscription(TYPE, type, task) {}
};

}  // namespace Engine
