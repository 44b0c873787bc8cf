#pragma once

#include "framework/Outbox.h"

#include <array>
#include <cstddef>
#include <memory>

namespace ProcessCollect {

/// One inbox that process events go to, and which of them it wants.
///
/// Threads: one at a time. Ownership: shares the inbox with its task.
class Subscriber : public Framework::Outbox {
public:
    /// @param backlog  events kept at the most while the inbox is full; further ones are lost
    Subscriber(std::shared_ptr<Framework::Inbox> inbox, std::size_t backlog);

    /// Whether events of a type are wanted. Types: ProcsMessage::Flag.
    bool Wants(unsigned int type) const { return type < m_types.size() && m_types[type]; }
    bool WantsAny() const;
    void SetWanted(unsigned int type, bool wanted);

private:
    std::array<bool, 4> m_types{};  // by type; 0 is none
};

}  // namespace ProcessCollect
