// Places: the directories that are marked or lead to a root, and how they follow the file system.

#include "FileNotifyLog.h"
#include "WatchPath.h"
#include "WatchTree.h"
#include "sdk/PathUtils.h"

#include <Poco/Error.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace FileNotify {

namespace {

constexpr std::size_t kProgressEvery = 10000;

// What the kernel shows as files is no tree of files: without an end, and the watching itself would
// change it. One can be asked for by its own path.
constexpr std::array<long, 5> kPseudoFileSystems = {
    PROC_SUPER_MAGIC, SYSFS_MAGIC, CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, TRACEFS_MAGIC};

struct DirectoryCloser {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

bool IsDirectory(int parent, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN) {
        return entry.d_type == DT_DIR;
    }
    struct stat status {};
    return ::fstatat(parent, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(status.st_mode);
}

bool IsDots(std::string_view name) { return name == "." || name == ".."; }

/// Whether a path still leads to an open directory.
bool LeadsTo(const std::string& path, int directory) {
    struct stat byPath {};
    struct stat open {};
    return ::lstat(path.c_str(), &byPath) == 0 && ::fstat(directory, &open) == 0 &&
           byPath.st_dev == open.st_dev && byPath.st_ino == open.st_ino;
}

/// True for errors that say only that the directory went away meanwhile.
bool IsGone(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }

}  // namespace

bool WatchTree::Scan(int directories) {
    const bool working = !m_toScan.empty();
    for (; directories > 0 && !m_toScan.empty(); --directories) {
        const std::string path = std::move(m_toScan.front());
        m_toScan.pop_front();
        ScanDirectory(path);
        if (m_markedCount >= m_nextProgress + kProgressEvery) {
            m_nextProgress = m_markedCount;
            SDK::LogInformation(Logger(), "%lu directories are watched so far.",
                                static_cast<unsigned long>(m_markedCount));
        }
    }
    if (working && m_toScan.empty()) {
        m_nextProgress = 0;
        SDK::LogInformation(Logger(), "%lu directories are watched.",
                            static_cast<unsigned long>(m_markedCount));
    }
    return !m_toScan.empty();
}

void WatchTree::ScanDirectory(const std::string& path) {
    std::vector<SubscriberPtr> subscribers = Covering(path);
    if (subscribers.empty()) {
        return;
    }
    const SDK::UniqueDescriptor directory(
        ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) {
        if (!IsGone(errno)) {
            SDK::LogError(Logger(), "Directory(%s) cannot be read: %s. It is not watched.", path,
                          Poco::Error::getMessage(errno));
        }
        return;
    }
    if (IsLeftOut(directory.Get(), path)) {
        return;
    }
    // The list last: nothing that is made meanwhile slips through.
    DirectoryMark mark;
    if (!MarkDirectory(directory.Get(), path, mark)) {
        return;
    }
    Place& place = PlaceOf(path);
    SetMark(place, std::move(mark));
    place.m_directory.m_subscribers = std::move(subscribers);
    ListDirectories(directory.Get(), path);
}

/// Marks the directory that stands at a path, and sees to it that its changes are told.
/// @return false when it cannot be marked, or is a place already under another path
bool WatchTree::MarkDirectory(int directory, const std::string& path, DirectoryMark& mark) {
    int error = m_marks.Mark(directory, mark);
    if (error == 0 && mark.m_byKey) {
        const auto known = m_byKey.find(mark.m_key);
        if (known == m_byKey.end() || known->second->m_directory.m_path == path) {
            return true;
        }
        const std::string other = known->second->m_directory.m_path;  // goes with its place
        if (!Displace(other, directory, path)) {
            return false;
        }
        error = m_marks.Mark(directory, mark);  // the place it had took the mark along
    } else if (error == 0) {
        if (!WatchChanges(directory, path)) {
            return false;
        }
        error = m_marks.Mark(directory, mark);
    }
    if (error != 0) {
        LogUnmarkable(directory, path, error);
        EraseUnused(path);
    }
    return error == 0;
}

void WatchTree::LogUnmarkable(int directory, const std::string& path, int error) const {
    struct statfs fileSystem {};
    ::fstatfs(directory, &fileSystem);
    SDK::LogError(Logger(), "Directory(%s) cannot be watched, on a file system of type 0x%lx: %s",
                  path, static_cast<unsigned long>(fileSystem.f_type),
                  Poco::Error::getMessage(error));
}

bool WatchTree::IsLeftOut(int directory, const std::string& path) const {
    struct statfs fileSystem {};
    if (::fstatfs(directory, &fileSystem) != 0 ||
        std::find(kPseudoFileSystems.begin(), kPseudoFileSystems.end(), fileSystem.f_type) ==
            kPseudoFileSystems.end()) {
        return false;
    }
    const bool wanted = std::any_of(m_roots.begin(), m_roots.end(), [&](const Root& root) {
        struct statfs rootFileSystem {};
        return SDK::PathUtils::IsWithin(path, root.m_real) && !root.m_real.empty() &&
               ::statfs(root.m_real.c_str(), &rootFileSystem) == 0 &&
               rootFileSystem.f_type == fileSystem.f_type;
    });
    if (!wanted) {
        SDK::LogInformation(Logger(), "Directory(%s) shows the kernel's state, it is left out.",
                            path);
    }
    return !wanted;
}

WatchTree::Place& WatchTree::PlaceOf(const std::string& path) {
    Place& place = m_places[path];
    place.m_directory.m_path = path;
    return place;
}

/// Watches for changes in the directory that stands at a path.
/// @return false when it is a place already, under another path
bool WatchTree::WatchChanges(int directory, const std::string& path) {
    const int watch = m_changes.Add(directory);
    if (watch == -ENOSPC) {
        LogLimit();
    } else if (watch < 0) {
        SDK::LogError(Logger(), "Changes in directory(%s) cannot be watched: %s", path,
                      Poco::Error::getMessage(-watch));
    }
    if (watch >= 0) {
        if (!ReleaseWatch(watch, directory, path)) {
            return false;
        }
        SetWatch(PlaceOf(path), watch);
    }
    return true;
}

/// Takes a watch away from the place that has it, when its directory has moved to another path.
/// @return false when it has not: it can be reached by both paths
bool WatchTree::ReleaseWatch(int watch, int directory, const std::string& path) {
    const auto known = m_byWatch.find(watch);
    if (known == m_byWatch.end() || known->second->m_directory.m_path == path) {
        return true;
    }
    const std::string other = known->second->m_directory.m_path;
    if (!Displace(other, directory, path)) {
        return false;
    }
    if (const auto still = m_byWatch.find(watch); still != m_byWatch.end()) {
        still->second->m_watch = -1;
        m_byWatch.erase(still);
    }
    return true;
}

/// Gives the place up that a directory has under another path, when it has moved from there.
/// @return false when it has not: it can be reached by both paths
bool WatchTree::Displace(const std::string& other, int directory, const std::string& path) {
    if (LeadsTo(other, directory)) {
        SDK::LogInformation(Logger(), "Directory(%s) is directory(%s), which is watched already.",
                            path, other);
        return false;
    }
    // The move is only about to be told.
    DropTree(other);
    MarkStale(other);
    return true;
}

void WatchTree::SetWatch(Place& place, int watch) {
    if (place.m_watch >= 0 && place.m_watch != watch) {
        // Another directory stands at this path now, before the end of the old one was told.
        m_byWatch.erase(place.m_watch);
        m_changes.Remove(place.m_watch);
        if (place.m_marked) {
            Unmark(place);
        }
    }
    place.m_watch = watch;
    m_byWatch[watch] = &place;
}

void WatchTree::SetMark(Place& place, DirectoryMark mark) {
    if (place.m_marked && place.m_mark.m_key != mark.m_key) {
        Unmark(place);
    }
    place.m_mark = std::move(mark);
    if (!place.m_marked) {
        place.m_marked = true;
        ++m_markedCount;
    }
    if (place.m_mark.m_byKey) {
        m_byKey[place.m_mark.m_key] = &place;
    }
}

void WatchTree::ListDirectories(int directory, const std::string& path) {
    SDK::UniqueDescriptor list(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, DirectoryCloser> entries(::fdopendir(list.Get()));
    if (entries == nullptr) {
        SDK::LogError(Logger(), "Directory(%s) cannot be listed: %s", path,
                      Poco::Error::getMessage(errno));
        return;
    }
    list.Release();  // closedir closes it
    // Safe on a stream that no other thread reads (readdir(3)).
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    while (const dirent* entry = ::readdir(entries.get())) {
        if (IsDirectory(directory, *entry) && !IsDots(entry->d_name)) {
            m_toScan.push_back(WatchPath::Join(path, entry->d_name));
        }
    }
}

void WatchTree::TakeEvent(const FanotifyEvent& event) {
    constexpr std::uint64_t changes = FAN_CREATE | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_DELETE_SELF;
    if ((event.m_mask & FAN_ONDIR) == 0 || (event.m_mask & changes) == 0) {
        return;
    }
    const auto found = m_byKey.find(event.m_directory);
    if (found == m_byKey.end()) {
        return;
    }
    Place& place = *found->second;
    if ((event.m_mask & FAN_DELETE_SELF) != 0) {
        Forget(place);
        return;
    }
    // Changes of one name that nobody has read yet come as one, their order unknown: what stands
    // there now decides.
    const std::string path = WatchPath::Join(place.m_directory.m_path, event.m_name);
    if ((event.m_mask & FAN_MOVED_FROM) != 0) {
        DropTree(path);
    }
    m_toScan.push_back(path);
}

void WatchTree::TakeChanges() {
    m_changes.Read([this](const ChangeFeed::Change& change) { TakeChange(change); });
    if (std::exchange(m_checkWanted, false)) {
        Check();
    }
    RelocateStale();
}

void WatchTree::TakeChange(const ChangeFeed::Change& change) {
    if ((change.m_mask & IN_Q_OVERFLOW) != 0) {
        SDK::LogError(Logger(),
                      "The kernel lost changes of directories. All directories are checked.");
        m_checkWanted = true;
        return;
    }
    const auto found = m_byWatch.find(change.m_watch);
    if (found == m_byWatch.end()) {
        return;
    }
    Place& place = *found->second;
    if ((change.m_mask & IN_IGNORED) != 0) {
        m_byWatch.erase(std::exchange(place.m_watch, -1));
        Forget(place);
        return;
    }
    if (change.m_name.empty()) {
        return;
    }
    const std::string path = WatchPath::Join(place.m_directory.m_path, change.m_name);
    if ((change.m_mask & IN_ISDIR) != 0) {
        if ((change.m_mask & IN_MOVED_FROM) != 0) {
            DropTree(path);
        } else if (place.m_marked) {
            m_toScan.push_back(path);
        }
    }
    MarkStale(path);
}

/// The directory is gone, and with it all that the kernel held for it.
void WatchTree::Forget(Place& place) {
    const std::string path = place.m_directory.m_path;
    if (place.m_marked) {
        Unmark(place);
    }
    MarkStale(path);
    EraseUnused(path);
}

void WatchTree::Unmark(Place& place) {
    place.m_marked = false;
    --m_markedCount;
    place.m_directory.m_subscribers.clear();
    const auto known = m_byKey.find(place.m_mark.m_key);
    if (known != m_byKey.end() && known->second == &place) {
        m_byKey.erase(known);
    }
    if (!m_marks.Unmark(place.m_mark, place.m_directory.m_path) &&
        (place.m_mark.m_byKey || place.m_watch >= 0)) {
        ++m_strayMarks;
    }
}

void WatchTree::DropTree(const std::string& path) {
    ForEachBelow(path, [this](Place& place) {
        if (place.m_marked) {
            Unmark(place);
        }
    });
}

void WatchTree::ForEachBelow(const std::string& path, const std::function<void(Place&)>& handle) {
    // Paths that begin alike but lie elsewhere ("/a-b" for "/a") may stand in between.
    for (auto place = m_places.lower_bound(path);
         place != m_places.end() && place->first.compare(0, path.size(), path) == 0;) {
        const std::string current = place->first;
        Place& here = (place++)->second;
        if (here.m_marked && SDK::PathUtils::IsWithin(current, path)) {
            handle(here);
            EraseUnused(current);
        }
    }
}

void WatchTree::EraseUnused(const std::string& path) {
    const auto place = m_places.find(path);
    if (place == m_places.end() || place->second.m_marked || place->second.m_guards > 0) {
        return;
    }
    const int watch = place->second.m_watch;
    if (watch >= 0) {
        m_byWatch.erase(watch);
        m_changes.Remove(watch);
    }
    m_places.erase(place);
}

void WatchTree::CheckPlaces() {
    std::vector<std::string> gone;
    for (const auto& [path, place] : m_places) {
        struct stat status {};
        const bool there = ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
        const bool same = !place.m_marked || (status.st_dev == place.m_mark.m_device &&
                                              status.st_ino == place.m_mark.m_inode);
        if (!there || !same) {
            gone.push_back(path);
        }
    }
    for (const std::string& path : gone) {
        DropTree(path);
        MarkStale(path);
        m_toScan.push_back(path);
    }
    RelocateStale();
}

void WatchTree::Check() {
    CheckPlaces();
    for (Root& root : m_roots) {
        root.m_stale = root.m_stale || WatchPath::RealDirectory(root.m_asked) != root.m_real;
        if (!root.m_stale) {
            m_toScan.push_back(root.m_real);
        }
    }
    RelocateStale();
}

void WatchTree::LogLimit() {
    if (!std::exchange(m_limitLogged, true)) {
        SDK::LogError(Logger(),
                      "The limit of watched directories (fs.inotify.max_user_watches) is reached "
                      "with %lu. Directories made later in the others are not noticed.",
                      static_cast<unsigned long>(m_byWatch.size()));
    }
}

}  // namespace FileNotify
