#pragma once

#include "HolderSource.h"

#include <cstdint>

namespace NetCollect {

/// Reads the links below /proc/PID/fd. Works everywhere and costs a system call for each open file
/// of the host.
class ProcHolderSource : public HolderSource {
public:
    std::string Name() const override { return "proc"; }
    bool Start() override { return true; }
    bool Read(const SocketSet& sockets, Holders& holders) override;

    /// Processes whose files could not be read, since the source was made.
    std::uint64_t Unreadable() const { return m_unreadable; }

private:
    void NoteUnreadable(int pid, int error);

    std::uint64_t m_unreadable = 0;
};

}  // namespace NetCollect
