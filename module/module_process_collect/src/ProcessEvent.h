#pragma once

#include "ProcessImage.h"
#include "process_collect/ProcsMessage.h"

#include <chrono>
#include <cstdint>
#include <string_view>

namespace ProcessCollect {

/// One event as a source tells it. The texts belong to the source and are good only while the sink
/// is inside its call.
struct ProcessEvent {
    Engine::ProcsMessage::Flag m_type = Engine::ProcsMessage::FORK;
    int m_pid = 0;
    int m_parentPid = 0;            ///< fork: who forked; exec: the kernel's parent; 0: not told
    std::uint64_t m_startTime = 0;  ///< nanoseconds from boot to the fork; 0: not told
    RunMarks m_marks;               ///< exec only
    std::chrono::steady_clock::time_point m_time;  ///< exec: when; the clock's zero: not told
    std::string_view m_comm;       ///< the kernel's name for the process; may be empty
    std::string_view m_exePath;    ///< exec: absolute; empty when it was not to be had
    std::string_view m_arguments;  ///< exec: each argument ended by a NUL
    bool m_incomplete = false;     ///< exec: arguments or path were not to be had
};

}  // namespace ProcessCollect
