#pragma once

#include "framework/Engine.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Agent {

/// Notices tasks that no longer do their work: whose thread has ended, or that took nothing out of
/// their inbox from one look to the next although something waited.
///
/// Threads: one at a time.
class TaskWatch {
public:
    /// Looks once. A task is given the time between two looks to take at least one message.
    /// @param tasks  what the engine tells of its tasks now
    /// @return one line for each task that does not work
    std::vector<std::string> Look(const std::vector<Framework::Engine::TaskStatus>& tasks);

private:
    struct Seen {
        std::uint64_t m_taken = 0;
        bool m_waiting = false;
    };
    std::map<std::string, Seen> m_seen;
};

}  // namespace Agent
