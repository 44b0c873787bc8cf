#pragma once

#include <atomic>

namespace Engine {

/// Keeps a task's loop within the agent's processor share, when that control is on.
/// @param lastTick  the tick of the previous adjustment, shared by all tasks of one class
/// @param file, line, taskName  where and who, for the control's log
/// Threads: any; may put the caller to sleep.
void KeepCpuShare(std::atomic<unsigned long>& lastTick, const char* file, int line,
                  const char* taskName);

}  // namespace Engine
