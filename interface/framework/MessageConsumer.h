#pragma once

#include "framework/Inbox.h"

#include <memory>
#include <string>
#include <utility>

namespace Framework {

/// Whoever has an inbox. The base of every task.
class MessageConsumer {
public:
    MessageConsumer(const MessageConsumer&) = delete;
    MessageConsumer& operator=(const MessageConsumer&) = delete;

    /// The inbox, to be shared with senders that may outlive this object. Never null.
    const std::shared_ptr<Inbox>& GetInbox() const { return m_inbox; }

protected:
    MessageConsumer(const std::string& owner, unsigned int capacity)
        : m_inbox(std::make_shared<Inbox>(owner, capacity)) {}
    ~MessageConsumer() = default;

private:
    const std::shared_ptr<Inbox> m_inbox;
};

}  // namespace Framework
