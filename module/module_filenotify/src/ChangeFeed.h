#pragma once

#include "sdk/UniqueDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace FileNotify {

/// Tells what is made, moved and deleted in directories, by inotify(7). For those that fanotify
/// does not tell of: the ancestors of what is watched, and file systems without handles.
///
/// Threads: one at a time.
class ChangeFeed {
public:
    /// One change.
    struct Change {
        int m_watch = -1;
        std::uint32_t m_mask = 0;  ///< IN_CREATE and the like; IN_IGNORED when the watch is over
        std::string_view m_name;   ///< of what changed in the directory; good inside the sink only
    };
    using Sink = std::function<void(const Change&)>;

    /// @return 0 or the error number
    int Open();
    void Close() { m_feed.Reset(); }

    /// Readable when there are changes; -1 when closed.
    int Descriptor() const { return m_feed.Get(); }

    /// Watches an open directory. Watching twice gives the same number.
    /// @return the watch, or the negative error number; -ENOSPC at fs.inotify.max_user_watches
    int Add(int directory);

    /// Ends a watch. Unknown ones are ignored.
    void Remove(int watch);

    /// Hands over the changes so far. @return their number
    std::size_t Read(const Sink& sink);

private:
    SDK::UniqueDescriptor m_feed;
};

}  // namespace FileNotify
