#pragma once

#include "SocketReader.h"

#include <cstdint>
#include <map>
#include <vector>

namespace NetCollect {

/// The network namespaces in which processes live, and the sockets in them.
///
/// Threads: one at a time. The calling thread stays in its own namespace.
class NetNamespaces {
public:
    /// How much of what there was could be read.
    struct Outcome {
        std::size_t m_read = 0;    ///< namespaces
        std::size_t m_gone = 0;    ///< that ended meanwhile
        std::size_t m_failed = 0;  ///< whose sockets could not be read
        std::size_t m_hidden = 0;  ///< processes whose namespace could not be told
        int m_error = 0;           ///< of the last failure
        int m_hiddenError = 0;     ///< of the last hidden process
    };

    /// Reads the sockets of every namespace that a process lives in.
    /// @param sockets  replaced
    Outcome ReadSockets(std::vector<Socket>& sockets);

    /// How often a list had to be asked for again, since the object was made.
    std::uint64_t Repeats() const { return m_reader.Repeats(); }

    /// Namespaces by their inode numbers, each with some of the processes in it.
    using Namespaces = std::map<std::uint64_t, std::vector<int>>;

    /// The namespaces in which processes live.
    /// @param outcome  the hidden ones are added
    static Namespaces List(Outcome& outcome);

private:
    void ReadForeign(const Namespaces& namespaces, std::vector<Socket>& sockets, Outcome& outcome);

    SocketReader m_reader;
};

}  // namespace NetCollect
