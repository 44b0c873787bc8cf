#pragma once

#include "Socket.h"

#include <string>

namespace NetCollect {

/// Finds out which processes hold sockets. There are two ways, with the same answers.
///
/// Threads: one at a time.
class HolderSource {
public:
    HolderSource() = default;
    virtual ~HolderSource() = default;
    HolderSource(const HolderSource&) = delete;
    HolderSource& operator=(const HolderSource&) = delete;

    /// What it is called in the log and the configuration.
    virtual std::string Name() const = 0;

    /// Prepares. @return false when this way is closed here (logged)
    virtual bool Start() = 0;

    /// @param sockets  whose holders are wanted
    /// @param holders  replaced; each socket's processes once, in ascending order. A socket that
    ///                 nobody holds is left out
    /// @return false when the files of all processes could not be read (logged)
    virtual bool Read(const SocketSet& sockets, Holders& holders) = 0;
};

/// Puts the processes of each socket in order and drops repetitions.
void SortHolders(Holders& holders);

}  // namespace NetCollect
