#pragma once

#include "ProcessEvent.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ProcessCollect {

/// Something that a source could not tell, by reason.
struct LossCount {
    std::string m_reason;       ///< for the log, in words
    std::uint64_t m_count = 0;  ///< since the source was started
    bool m_eventLost = true;    ///< false: the event came, but a part of it was missing
};

/// Where process events come from. Two kernel mechanisms stand behind it.
///
/// Threads: one at a time; the collector's lock sees to that.
class ProcessSource {
public:
    using Sink = std::function<void(const ProcessEvent&)>;

    ProcessSource() = default;
    virtual ~ProcessSource() = default;
    ProcessSource(const ProcessSource&) = delete;
    ProcessSource& operator=(const ProcessSource&) = delete;

    /// For the log and the status.
    virtual std::string Name() const = 0;

    /// Attaches to the kernel. @return false when that is not possible; the reason is logged
    virtual bool Start() = 0;

    /// Detaches. Harmless when it was not started.
    virtual void Stop() = 0;

    /// Becomes readable when events are worth reading. Owned by the source; -1 while stopped.
    virtual int Descriptor() const = 0;

    /// Hands every event that is ready to the sink, in the kernel's order, without waiting.
    /// @return how many
    virtual std::size_t Drain(const Sink& sink) = 0;

    /// Prepares the reader's sleep on the descriptor.
    /// @param drained  what the last Drain returned
    /// @return milliseconds after which Drain must be called even if the descriptor stays silent
    virtual int PrepareSleep(std::size_t drained) = 0;

    /// Events lost so far, all reasons. Cheap enough to be asked after every Drain.
    virtual std::uint64_t LostEvents() const = 0;

    /// All losses and defects, by reason.
    virtual std::vector<LossCount> Losses() const = 0;
};

}  // namespace ProcessCollect
