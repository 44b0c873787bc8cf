#pragma once

#include "sdk/UniqueDescriptor.h"

namespace FileNotify {

/// Tells that something was mounted or unmounted in this program's mount namespace, by polling
/// /proc/self/mountinfo (proc(5)). No event of a directory tells that another one covers it now.
///
/// Threads: one at a time.
class MountFeed {
public:
    /// Without /proc no change is ever told (logged).
    void Open();
    void Close() { m_mounts.Reset(); }

    /// @return whether the mounts have changed since the last call, or since Open. Never waits
    bool Changed();

private:
    SDK::UniqueDescriptor m_mounts;
};

}  // namespace FileNotify
