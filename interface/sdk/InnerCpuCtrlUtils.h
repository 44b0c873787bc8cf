#pragma once

namespace SDK {

/// Holds each task thread to a share of one processor, for operators who would rather have late
/// alarms than a busy host. Off until SetShare switches it on.
///
/// Threads: SetShare is called before the tasks start; the other functions by any thread for
/// itself.
class InnerCpuCtrlUtils {
public:
    /// @param percent  1 to 100: the share of one processor that a thread may use; 0 switches the
    ///                 control off. Other values are brought to the nearest end.
    static void SetShare(int percent);

    /// True when the control is on.
    static bool IsEnabled();

    /// How many ticks (1/100 s) should pass between two adjustments of one thread.
    static unsigned long GetSuggestedRunTick();

    /// Puts the calling thread to sleep for as long as its own processor time is ahead of the
    /// share. At most one second a call, so that a stop request is still noticed; what is left is
    /// slept at the next calls. A thread's first call only begins its account.
    /// @param file, line  where the call stands, for the log
    /// @param taskName    the task, for the log
    /// @param nowTick     the tick at which the caller measured
    /// @param usedTick    ticks since nowTick of the caller's previous adjustment, its sleep
    ///                    included: the window that is judged
    static void AdjustThreadCpu(const char* file, int line, const char* taskName,
                                unsigned long nowTick, unsigned long usedTick);
};

}  // namespace SDK
