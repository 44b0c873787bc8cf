#pragma once

#include <atomic>

namespace Framework {

/// Wakes one sleeping thread through a descriptor (eventfd) that it can wait for beside others.
///
/// Raising it costs a system call only while the sleeper is asleep or about to be. That is safe
/// because both sides exchange the same flag: whichever exchange comes second sees what the other
/// side did before its own.
///
///     sleeper:  PrepareSleep() -> look for work -> sleep on Descriptor() -> FinishSleep()
///     waker:    leave work -> Raise()
class WakeSignal {
public:
    /// @throws Poco::SystemException when no descriptor can be had
    WakeSignal();
    ~WakeSignal();
    WakeSignal(const WakeSignal&) = delete;
    WakeSignal& operator=(const WakeSignal&) = delete;

    /// Wakes the sleeper when it sleeps. Call it after the work is visible. Any thread.
    void Raise();

    /// Wakes the sleeper now or, when it is awake, makes its next sleep end at once. Any thread.
    void RaiseAlways();

    /// Announces a sleep. The caller must look for work once more before it sleeps.
    void PrepareSleep();

    /// Ends the announcement and empties the descriptor.
    void FinishSleep();

    /// Readable while the signal is raised. Owned by the signal.
    int Descriptor() const { return m_descriptor; }

private:
    int m_descriptor;
    std::atomic<bool> m_asleep{false};
};

}  // namespace Framework
