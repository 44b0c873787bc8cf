#pragma once

#include "framework/Outbox.h"
#include "sdk/QueueTimes.h"

#include <array>
#include <cstddef>
#include <memory>

namespace ProcessCollect {

/// One inbox that process events go to, which of them it wants, and when those that wait happened.
///
/// Threads: one at a time. Ownership: shares the inbox with its task.
class Subscriber : public Framework::Outbox {
public:
    using TimePoint = SDK::QueueTimes::TimePoint;

    /// @param backlog  events kept at the most while the inbox is full; further ones are lost
    Subscriber(std::shared_ptr<Framework::Inbox> inbox, std::size_t backlog);

    /// Whether events of a type are wanted. Types: ProcsMessage::Flag.
    bool Wants(unsigned int type) const { return type < m_types.size() && m_types[type]; }
    bool WantsAny() const;
    void SetWanted(unsigned int type, bool wanted);

    /// As Outbox::Offer. @param time  when the event happened; the clock's zero: not known
    bool Offer(std::shared_ptr<Framework::Message> message, TimePoint time);

    /// As Outbox::Flush.
    /// @param latency  takes how long ago each that was moved happened, where that is known
    std::size_t Flush(SDK::LatencyHistogram& latency);

private:
    std::array<bool, 4> m_types{};  // by type; 0 is none
    SDK::QueueTimes m_times;        // of each message that waits, when its event happened
};

}  // namespace ProcessCollect
