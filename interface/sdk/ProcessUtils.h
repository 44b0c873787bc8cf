#pragma once

#include <functional>
#include <memory>
#include <string>

namespace SDK {

/// Looks up single processes. Answers come from the process collector's table when a collector is
/// loaded, and from /proc for what the table does not know.
///
/// Threads: any thread may call any function at any time.
class ProcessUtils {
public:
    /// What is told of one process.
    struct procStatus {
        int m_pid = 0;
        int m_ppid = 0;  ///< the process that forked it while that is known, else its parent now
        std::string m_name;  ///< the collector's process name, from /proc the kernel's
    };

    /// What a collector knows of one process.
    struct procRecord {
        procStatus m_status;
        std::string m_cmdline;  ///< arguments joined by single blanks
    };

    /// Finds a process in a collector's table. Returns false when the table does not know the pid.
    using Lookup = std::function<bool(int pid, procRecord& record)>;

    /// Makes a collector's table the first source of all look-ups. An empty function takes it away
    /// again; when that returns, no thread is inside the previous function any more.
    static void SetLookup(Lookup lookup);

    /// @return 0, or -1 when no such process is known
    static int GetProcessStatusInfo(int pid, procStatus& status);

    /// Reads a process's command line, its arguments joined by single blanks.
    /// @param maxBytes  the longest text returned; a longer one is cut
    /// @return 0, or -1 when no such process is known; cmdline is then unchanged
    static int GetProcessCmdline(int pid, std::string& cmdline, int maxBytes);
};

}  // namespace SDK
