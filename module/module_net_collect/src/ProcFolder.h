#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace NetCollect {

/// What is read from /proc. Stateless.
class ProcFolder {
public:
    /// The processes that live now, in no order; empty when /proc cannot be read (errno).
    static std::vector<int> ListPids();

    /// Calls a function for the inode of each socket among a process's open files.
    /// @return 0 or the error number; ENOENT when the process is gone
    static int ForEachSocket(int pid, const std::function<void(std::uint64_t)>& take);

    /// The path of a process's executable, without a " (deleted)"; empty when it is not known.
    static std::string ExePath(int pid);
};

}  // namespace NetCollect
