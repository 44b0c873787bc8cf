#pragma once

#include "ChangeFeed.h"
#include "DirectoryKey.h"
#include "FileMarks.h"
#include "framework/Outbox.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace FileNotify {

/// The directories that subscribers asked for, and all below them, as they are now: what is made or
/// moved in is marked, what is moved out or no longer asked for is given back.
///
/// A directory that was asked for is a root. Symbolic links in its path are resolved when it is
/// asked for; links below it are not followed. Its ancestors are watched too, for the case that one
/// of them, or the root itself, is put in place later or replaced.
///
/// What happens in a marked directory its mark tells. Where it cannot, and for ancestors, the feed
/// does.
///
/// Invariants: a place is kept while a root leads through it (m_guards) or covers it (m_marked).
/// Each marked place has a subscriber. m_byWatch and m_byKey lead to places of m_places only.
///
/// Threads: one at a time. Ownership: uses the marks and the feed of its owner.
class WatchTree {
public:
    using SubscriberPtr = std::shared_ptr<Framework::Outbox>;

    /// A marked directory.
    struct Directory {
        std::string m_path;
        std::vector<SubscriberPtr> m_subscribers;  ///< those whose roots cover it, each once
    };

    WatchTree(FileMarks& marks, ChangeFeed& changes);

    /// Asks for a directory, there or not yet. Asking twice is once.
    /// @param path       absolute; anything else is refused (logged)
    /// @param recursive  all directories below it too
    void Add(const std::string& path, bool recursive, const SubscriberPtr& subscriber);

    /// Takes a request back. @return false when there was none
    bool Remove(const std::string& path, const SubscriberPtr& subscriber);

    /// Takes all requests of a subscriber back.
    void RemoveAll(const SubscriberPtr& subscriber);

    /// Forgets everything. For when marks and feed have been closed, which gave all of it back.
    void Clear();

    /// Goes on marking what is new. @param directories  how many to look at
    /// @return true when there are more
    bool Scan(int directories);

    /// Follows what a mark tells of directories that were made, moved or deleted. Events of other
    /// kinds are ignored.
    void TakeEvent(const FanotifyEvent& event);

    /// Follows what the feed told of them since the last call, and looks for roots that moved.
    void TakeChanges();

    /// Compares every place with the file system. For the case that something was mounted over it.
    void CheckPlaces();

    /// The same, and looks at all directories again. For the case that the kernel lost changes or
    /// events.
    void Check();

    /// The marked directory of this key or path, or null.
    const Directory* FindByKey(std::string_view key) const;
    const Directory* FindByPath(std::string_view path) const;

    std::size_t RootCount() const { return m_roots.size(); }
    std::size_t MarkedCount() const { return m_markedCount; }

    /// Watches held in the feed. For tests: what is given back must be gone.
    std::size_t WatchCount() const { return m_byWatch.size(); }

    /// Marks that could not be taken back because their directory could not be reached any more.
    std::uint64_t StrayMarks() const { return m_strayMarks; }

private:
    struct Place {
        Directory m_directory;
        DirectoryMark m_mark;
        int m_watch = -1;
        int m_guards = 0;
        bool m_marked = false;
    };

    struct Root {
        std::string m_asked;
        bool m_recursive = false;
        SubscriberPtr m_subscriber;
        std::string m_real;                 // where it is; empty while it is not there
        std::string m_target;               // m_real, or where it is expected
        std::vector<std::string> m_guards;  // places that its target leads through
        bool m_stale = false;               // something on the way to it has changed
    };

    using Roots = std::list<Root>;
    using Places = std::map<std::string, Place, std::less<>>;

    Roots::iterator FindRoot(const std::string& asked, const SubscriberPtr& subscriber);
    void Locate(Root& root);
    bool Resolve(Root& root, std::string& above);
    void LogLocated(const Root& root) const;
    void Release(Root& root);
    void MarkStale(const std::string& path);
    void RelocateStale();

    void Guard(Root& root, const std::string& above);
    void Unguard(const std::string& path);
    void WatchGuard(const std::string& path);

    std::vector<SubscriberPtr> Covering(const std::string& path) const;
    void ScanDirectory(const std::string& path);
    bool MarkDirectory(int directory, const std::string& path, DirectoryMark& mark);
    bool Displace(const std::string& other, int directory, const std::string& path);
    void SetMark(Place& place, DirectoryMark mark);
    void LogUnmarkable(int directory, const std::string& path, int error) const;
    bool IsLeftOut(int directory, const std::string& path) const;
    Place& PlaceOf(const std::string& path);
    bool WatchChanges(int directory, const std::string& path);
    bool ReleaseWatch(int watch, int directory, const std::string& path);
    void SetWatch(Place& place, int watch);
    void ListDirectories(int directory, const std::string& path);

    void TakeChange(const ChangeFeed::Change& change);
    void Forget(Place& place);
    void Unmark(Place& place);
    void DropTree(const std::string& path);
    void ForEachBelow(const std::string& path, const std::function<void(Place&)>& handle);
    void EraseUnused(const std::string& path);
    void LogLimit();

    FileMarks& m_marks;
    ChangeFeed& m_changes;
    Roots m_roots;
    Places m_places;
    std::unordered_map<int, Place*> m_byWatch;
    std::unordered_map<DirectoryKey, Place*, DirectoryKeyHash, std::equal_to<>> m_byKey;
    std::deque<std::string> m_toScan;
    std::size_t m_markedCount = 0;
    std::uint64_t m_strayMarks = 0;
    std::size_t m_nextProgress = 0;
    bool m_limitLogged = false;
    bool m_checkWanted = false;
};

}  // namespace FileNotify
