#pragma once

#include "FanotifyEventReader.h"
#include "sdk/UniqueDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace FileNotify {

/// A group of fanotify(7) marks and the queue of their events. It only ever notifies: no access
/// waits for this program.
///
/// Threads: one at a time.
class FanotifyGroup {
public:
    /// How its events name a file.
    enum class Naming {
        /// By the directory's key and a name: cheap, and right under every mount. What befalls the
        /// directories themselves is told too.
        BY_DIRECTORY,
        /// By an open descriptor: for file systems that have no handles. Accesses of files only.
        BY_DESCRIPTOR,
    };

    explicit FanotifyGroup(Naming naming);

    /// Creates the group in the kernel. @return 0 or the error number
    int Open();

    /// Gives every mark back.
    void Close() { m_group.Reset(); }

    bool IsOpen() const { return static_cast<bool>(m_group); }

    /// Readable when there are events; -1 when closed.
    int Descriptor() const { return m_group.Get(); }

    /// Marks a directory for accesses of the files in it, and for its own changes where they can be
    /// told; or takes the mark back. Marking twice is once. @return 0 or the error number
    int Mark(int directory);
    int Unmark(int directory);

    /// Hands over what has happened, own accesses too, up to a bound.
    /// @return the number of events
    std::size_t Read(const FanotifyEventReader::Sink& sink);

private:
    std::uint64_t Events() const;
    std::size_t ReadOnce(const FanotifyEventReader::Sink& sink, bool& more);
    void ResolveAndClose(FanotifyEvent& event, const FanotifyEventReader::Sink& sink);

    const Naming m_naming;
    SDK::UniqueDescriptor m_group;
    std::vector<std::uint64_t> m_buffer;  // of 64 bits each: the kernel's records are aligned so
};

}  // namespace FileNotify
