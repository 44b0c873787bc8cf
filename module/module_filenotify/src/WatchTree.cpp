// Roots: what was asked for, and the way to it.

#include "WatchTree.h"

#include "FileNotifyLog.h"
#include "WatchPath.h"
#include "sdk/PathUtils.h"

#include <Poco/Error.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace FileNotify {

namespace {

// The way to a root may change while it is being looked at; it is looked at again so often.
constexpr int kLocateAttempts = 3;

}  // namespace

WatchTree::WatchTree(FileMarks& marks, ChangeFeed& changes) : m_marks(marks), m_changes(changes) {}

void WatchTree::Add(const std::string& path, bool recursive, const SubscriberPtr& subscriber) {
    const std::string asked = WatchPath::Clean(path);
    if (asked.empty()) {
        SDK::LogError(Logger(), "Directory(%s) is not watched: an absolute path is expected.",
                      path);
        return;
    }
    if (FindRoot(asked, subscriber) != m_roots.end()) {
        SDK::LogDebug(Logger(), "Directory(%s) is watched already.", asked);
        return;
    }
    Root& root = m_roots.emplace_back();
    root.m_asked = asked;
    root.m_recursive = recursive;
    root.m_subscriber = subscriber;
    Locate(root);
    LogLocated(root);
}

bool WatchTree::Remove(const std::string& path, const SubscriberPtr& subscriber) {
    const auto root = FindRoot(WatchPath::Clean(path), subscriber);
    if (root == m_roots.end()) {
        return false;
    }
    Release(*root);
    m_roots.erase(root);
    return true;
}

void WatchTree::RemoveAll(const SubscriberPtr& subscriber) {
    for (auto root = m_roots.begin(); root != m_roots.end();) {
        if (root->m_subscriber == subscriber) {
            Release(*root);
            root = m_roots.erase(root);
        } else {
            ++root;
        }
    }
}

void WatchTree::Clear() {
    m_byWatch.clear();
    m_byKey.clear();
    m_places.clear();
    m_roots.clear();
    m_toScan.clear();
    m_markedCount = 0;
    m_checkWanted = false;
}

WatchTree::Roots::iterator WatchTree::FindRoot(const std::string& asked,
                                               const SubscriberPtr& subscriber) {
    return std::find_if(m_roots.begin(), m_roots.end(), [&](const Root& root) {
        return root.m_asked == asked && root.m_subscriber == subscriber;
    });
}

void WatchTree::Locate(Root& root) {
    root.m_stale = false;
    for (int i = 0; i < kLocateAttempts; ++i) {
        std::string above;
        Resolve(root, above);
        Guard(root, above);
        // What changed before the guards stood was not told.
        const std::string target = root.m_target;
        const bool there = Resolve(root, above);
        if (root.m_target == target) {
            if (there) {
                m_toScan.push_back(root.m_real);
            }
            return;
        }
        for (const std::string& guard : std::exchange(root.m_guards, {})) {
            Unguard(guard);
        }
    }
    root.m_stale = true;
}

/// Finds where a root is, or else is expected.
/// @param above  the lowest directory there is on the way to it
bool WatchTree::Resolve(Root& root, std::string& above) {
    root.m_real = WatchPath::RealDirectory(root.m_asked);
    if (!root.m_real.empty()) {
        root.m_target = root.m_real;
        above = WatchPath::Above(root.m_real);
        return true;
    }
    std::string there = root.m_asked;
    do {
        there = WatchPath::Above(there);
        above = WatchPath::RealDirectory(there);
    } while (above.empty() && there != "/");
    const std::size_t missing = there == "/" ? 1 : there.size() + 1;
    root.m_target = WatchPath::Join(above, root.m_asked.substr(missing));
    return false;
}

void WatchTree::LogLocated(const Root& root) const {
    const std::string& owner = root.m_subscriber->GetInbox()->Owner();
    if (root.m_real.empty()) {
        WatchPath::RealDirectory(root.m_asked);  // for errno
        SDK::LogWarning(Logger(),
                        "Directory(%s) cannot be watched for task(%s) yet: %s. It is watched once "
                        "it is there.",
                        root.m_asked, owner, Poco::Error::getMessage(errno));
    } else if (root.m_real != root.m_asked) {
        SDK::LogInformation(Logger(),
                            "Directory(%s) is watched for task(%s) as %s, to which it leads now.",
                            root.m_asked, owner, root.m_real);
    } else {
        SDK::LogInformation(Logger(), "Directory(%s) is watched for task(%s).", root.m_asked,
                            owner);
    }
}

void WatchTree::Release(Root& root) {
    for (const std::string& guard : std::exchange(root.m_guards, {})) {
        Unguard(guard);
    }
    const std::string real = std::exchange(root.m_real, {});
    if (real.empty()) {
        return;
    }
    // A mark that another root needs stays.
    ForEachBelow(real, [this](Place& place) {
        place.m_directory.m_subscribers = Covering(place.m_directory.m_path);
        if (place.m_directory.m_subscribers.empty()) {
            Unmark(place);
        }
    });
}

void WatchTree::MarkStale(const std::string& path) {
    for (Root& root : m_roots) {
        root.m_stale = root.m_stale || SDK::PathUtils::IsWithin(root.m_target, path);
    }
}

void WatchTree::RelocateStale() {
    for (Root& root : m_roots) {
        if (!root.m_stale) {
            continue;
        }
        const std::string before = root.m_real;
        Release(root);
        Locate(root);
        if (root.m_real != before) {
            LogLocated(root);
        }
    }
}

void WatchTree::Guard(Root& root, const std::string& above) {
    for (std::string path = above;; path = WatchPath::Above(path)) {
        ++PlaceOf(path).m_guards;
        WatchGuard(path);
        root.m_guards.push_back(path);
        if (path == "/") {
            return;
        }
    }
}

void WatchTree::WatchGuard(const std::string& path) {
    const SDK::UniqueDescriptor directory(
        ::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (directory) {
        WatchChanges(directory.Get(), path);
    }
}

void WatchTree::Unguard(const std::string& path) {
    const auto place = m_places.find(path);
    if (place != m_places.end()) {
        --place->second.m_guards;
        EraseUnused(path);
    }
}

std::vector<WatchTree::SubscriberPtr> WatchTree::Covering(const std::string& path) const {
    std::vector<SubscriberPtr> subscribers;
    for (const Root& root : m_roots) {
        const bool covers =
            !root.m_real.empty() &&
            (root.m_recursive ? SDK::PathUtils::IsWithin(path, root.m_real) : path == root.m_real);
        if (covers && std::find(subscribers.begin(), subscribers.end(), root.m_subscriber) ==
                          subscribers.end()) {
            subscribers.push_back(root.m_subscriber);
        }
    }
    return subscribers;
}

const WatchTree::Directory* WatchTree::FindByKey(std::string_view key) const {
    const auto place = m_byKey.find(key);
    return place == m_byKey.end() ? nullptr : &place->second->m_directory;
}

const WatchTree::Directory* WatchTree::FindByPath(std::string_view path) const {
    const auto place = m_places.find(path);
    return place == m_places.end() || !place->second.m_marked ? nullptr
                                                              : &place->second.m_directory;
}

}  // namespace FileNotify
