#pragma once

#include "ProcStatReader.h"
#include "ProcessImage.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ProcessCollect {

/// A process as /proc shows it at one moment.
struct ProcSnapshot {
    int m_pid = 0;
    int m_parentPid = 0;
    std::uint64_t m_startTime = 0;  ///< nanoseconds from boot to the fork, in steps of a tick
    ProcessImagePtr m_image;        ///< never null after a successful read
};

/// Reads processes from /proc. Stateless: any thread at any time.
class ProcReader {
public:
    /// Reads one process that lives.
    /// @return false, and snapshot is unchanged, when there is none or it has ended
    static bool Read(int pid, ProcSnapshot& snapshot);

    /// The pids of all processes, zombies too, in no promised order.
    /// @return false when /proc cannot be listed (logged)
    static bool ListPids(std::vector<int>& pids);

    /// The path that /proc/<pid>/exe leads to; empty for a kernel thread or an unknown process.
    static std::string ReadExePath(int pid);

    /// The arguments as the kernel keeps them, each ended by a NUL; at most 4096 bytes.
    static std::string ReadArguments(int pid);
};

}  // namespace ProcessCollect
