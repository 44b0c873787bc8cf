#pragma once

#include "ChangeFeed.h"
#include "Counters.h"
#include "EventRouter.h"
#include "FileMarks.h"
#include "MountFeed.h"
#include "WatchTree.h"
#include "framework/Inbox.h"
#include "sdk/Ledger.h"
#include "sdk/Mutex.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace FileNotify {

/// The heart of the module: keeps the marks in step with the file system and takes events from the
/// kernel to the subscribers.
///
/// Threads: one at a time. The ledgers are read on any.
class FileNotifier {
public:
    /// @param backlog  messages kept at the most for a subscriber whose inbox is full
    explicit FileNotifier(std::size_t backlog);

    /// @return false when the kernel gives no file notification (logged)
    bool Start();

    /// Gives every mark and watch back and writes the books to the log.
    void Stop();

    /// Starts or stops watching a directory for a subscriber. See WatchTree.
    void Watch(const std::string& path, bool recursive,
               const std::shared_ptr<Framework::Inbox>& inbox);
    bool Unwatch(const std::string& path, const std::shared_ptr<Framework::Inbox>& inbox);

    /// Readable when Pass is worth calling. Those that are missing are left out.
    std::vector<int> Descriptors() const;

    /// Takes in changes and events, delivers them, and goes on with what is to be marked.
    /// @return milliseconds after which it wants to be called again, event or not
    int Pass();

    Counters GetCounters() const { return m_router.GetCounters(); }
    const WatchTree& Tree() const { return m_tree; }

private:
    std::size_t TakeEvents();
    void CheckAfterOverflow();
    void CheckAfterMounts();
    void LogBooks() const;
    void PublishBooks();
    Counters PublishedBooks() const;
    SDK::Ledger EventLedger() const;
    SDK::Ledger MessageLedger() const;

    FileMarks m_marks;
    ChangeFeed m_changes;
    MountFeed m_mounts;
    WatchTree m_tree;
    EventRouter m_router;
    bool m_started = false;
    std::uint64_t m_overflowsChecked = 0;
    bool m_mountsChanged = false;
    std::int64_t m_nextCheck = 0;  // seconds of the steady clock
    std::int64_t m_nextMountCheck = 0;
    mutable SDK::Mutex m_booksMutex;
    Counters m_books SDK_GUARDED_BY(m_booksMutex);  // as of the last pass
    const SDK::OpenLedger m_eventBooks{[this] { return EventLedger(); }};
    const SDK::OpenLedger m_messageBooks{[this] { return MessageLedger(); }};
};

}  // namespace FileNotify
