#pragma once

#include "framework/Message.h"
#include "framework/WakeSignal.h"
#include "sdk/LocklessQueue.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Framework {

/// A task's queue of messages with the signal that wakes its reader. Senders that outlive their
/// receiver (a collector and its subscriber) share the inbox instead of pointing at the task.
///
/// Threads: any number of senders, one receiver.
/// Ownership: shared by the task, its event waiter, and whoever sends to it regularly.
class Inbox {
public:
    /// @param owner     the receiving task's name, for the log
    /// @param capacity  largest number of messages waiting at once
    Inbox(std::string owner, unsigned int capacity);

    /// Offers one message and wakes the reader. A message that finds the inbox full is counted as
    /// lost, and the first loss after a success is logged.
    /// @return 1 when it was added, 0 when the inbox is full
    int Send(const std::shared_ptr<Message>& message);

    /// Offers messages, from the front, and wakes the reader. What does not fit stays the caller's
    /// to offer again: it is not counted as lost.
    /// @return how many were added
    int SendBulk(const std::vector<std::shared_ptr<Message>>& messages);

    /// Counts messages that a sender gave up on.
    void CountLost(std::uint64_t messages);

    /// Moves up to max waiting messages to the end of the vector. Receiver only.
    /// @return how many were taken
    int Receive(std::vector<std::shared_ptr<Message>>& messages, int max);

    /// True when nothing is waiting. Exact for the receiver.
    bool Empty() const { return m_queue.ApproximateSize() == 0; }

    /// Messages waiting.
    unsigned int Depth() const { return m_queue.ApproximateSize(); }
    unsigned int Capacity() const { return m_queue.Capacity(); }

    /// Messages added, and messages given up, since the inbox was made.
    std::uint64_t Accepted() const { return m_accepted.load(std::memory_order_relaxed); }
    std::uint64_t Lost() const { return m_lost.load(std::memory_order_relaxed); }

    /// The task that reads this inbox.
    const std::string& Owner() const { return m_owner; }

    /// The signal that wakes the reader.
    WakeSignal& Signal() { return m_signal; }

private:
    const std::string m_owner;
    SDK::LocklessQueue<std::shared_ptr<Message>> m_queue;
    WakeSignal m_signal;
    std::atomic<std::uint64_t> m_accepted{0};
    std::atomic<std::uint64_t> m_lost{0};
    std::atomic<bool> m_losing{false};
};

}  // namespace Framework
