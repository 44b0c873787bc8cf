#include "PolicyFolder.h"

#include "AgentLog.h"
#include "FileTrust.h"
#include "JsonFile.h"

#include <Poco/DirectoryIterator.h>
#include <Poco/Error.h>
#include <Poco/Path.h>
#include <Poco/String.h>

#include <limits.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace Agent {

namespace {

// A file counts when it was written and closed or moved here; links come without being written.
// One that was refused because others may write it counts again when its mode has changed.
constexpr std::uint32_t kFolderEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_ATTRIB |
                                        IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF |
                                        IN_ONLYDIR;
constexpr std::uint32_t kParentEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_ONLYDIR;

// Room for several events with the longest name (inotify(7)).
constexpr std::size_t kBufferBytes = 16 * (sizeof(inotify_event) + NAME_MAX + 1);

bool IsPolicyFile(const std::string& name) {
    return !name.empty() && name.front() != '.' && Poco::endsWith(name, std::string(".json"));
}

bool IsSymbolicLink(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

}  // namespace

PolicyFolder::PolicyFolder(std::string folder, Receiver receiver)
    : m_folder(std::move(folder)), m_receiver(std::move(receiver)) {}

PolicyFolder::~PolicyFolder() {
    if (m_descriptor >= 0) {
        ::close(m_descriptor);
    }
}

bool PolicyFolder::Start() {
    m_descriptor = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_descriptor < 0) {
        SDK::LogError(Logger(), "Policy changes cannot be followed: %s",
                      Poco::Error::getMessage(errno));
        return false;
    }
    return Watch() || WatchAbove();
}

int PolicyFolder::ReadAll() {
    std::set<std::string> names;
    try {
        for (Poco::DirectoryIterator file(m_folder), end; file != end; ++file) {
            if (IsPolicyFile(file.name())) {
                names.insert(file.name());
            }
        }
    } catch (const Poco::Exception& exception) {
        SDK::LogError(Logger(), "Policy folder(%s) cannot be read: %s", m_folder,
                      exception.displayText());
        return 0;
    }
    for (const std::string& name : std::set<std::string>(m_names)) {
        if (names.count(name) == 0) {
            Forget(name);
        }
    }
    int read = 0;
    for (const std::string& name : names) {
        read += ReadFile(name) ? 1 : 0;
    }
    return read;
}

void PolicyFolder::HandleChanges() {
    const Changes changes = CollectChanges();
    for (const std::string& name : changes.m_removed) {
        Forget(name);
    }
    if (changes.m_folderGone || m_watch < 0) {
        Reattach();
    } else if (changes.m_all) {
        ReadAll();
    } else {
        for (const std::string& name : changes.m_written) {
            ReadFile(name);
        }
    }
}

PolicyFolder::Changes PolicyFolder::CollectChanges() {
    Changes changes;
    alignas(inotify_event) std::array<char, kBufferBytes> buffer;
    for (ssize_t size = 0; (size = ::read(m_descriptor, buffer.data(), buffer.size())) > 0;) {
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            Note(*event, changes);
        }
    }
    return changes;
}

void PolicyFolder::Note(const inotify_event& event, Changes& changes) const {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
        changes.m_all = true;
    }
    if (event.wd != m_watch) {
        return;
    }
    if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0) {
        changes.m_folderGone = true;
    }
    const std::string name = event.len > 0 ? event.name : "";
    if (name.empty() && (event.mask & IN_ATTRIB) != 0) {
        changes.m_all = true;  // the folder's own mode
    }
    const bool removed = (event.mask & (IN_DELETE | IN_MOVED_FROM)) != 0;
    const bool link = !removed && !name.empty() && IsSymbolicLink(m_folder + '/' + name);
    if (!IsPolicyFile(name)) {
        // Where the files are links into a folder that is itself a link, as container platforms
        // arrange it, exchanging that one link changes them all.
        changes.m_all = changes.m_all || link;
    } else if (removed) {
        changes.m_written.erase(name);
        changes.m_removed.insert(name);
    } else if ((event.mask & IN_CREATE) == 0 || link) {
        changes.m_written.insert(name);
        changes.m_removed.erase(name);
    }
}

void PolicyFolder::Reattach() {
    if (m_watch >= 0) {
        ::inotify_rm_watch(m_descriptor, std::exchange(m_watch, -1));
        SDK::LogWarning(Logger(), "Policy folder(%s) is gone, its policies stay in force",
                        m_folder);
        for (const std::string& name : std::exchange(m_names, {})) {
            m_receiver.m_gone(m_folder + '/' + name);
        }
    }
    if (Watch() || (WatchAbove() && m_watch >= 0)) {
        LogNotice("Policy folder(%s) is there again", m_folder);
        ReadAll();
    }
}

bool PolicyFolder::Watch() {
    m_watch = ::inotify_add_watch(m_descriptor, m_folder.c_str(), kFolderEvents);
    if (m_watch >= 0 && m_watchAbove >= 0) {
        ::inotify_rm_watch(m_descriptor, std::exchange(m_watchAbove, -1));
    }
    return m_watch >= 0;
}

bool PolicyFolder::WatchAbove() {
    // The nearest folder above that is there tells when the next one comes.
    Poco::Path above = Poco::Path::forDirectory(m_folder).makeAbsolute();
    int watch = -1;
    while (watch < 0 && above.depth() > 0) {
        above = above.parent();
        watch = ::inotify_add_watch(m_descriptor, above.toString().c_str(), kParentEvents);
    }
    if (watch < 0) {
        SDK::LogError(Logger(), "Policy folder(%s) cannot be watched: %s", m_folder,
                      Poco::Error::getMessage(errno));
        return false;
    }
    if (watch != m_watchAbove) {
        ::inotify_rm_watch(m_descriptor, m_watchAbove);
        m_watchAbove = watch;
    }
    // It may have come between the look and the watch.
    Watch();
    return true;
}

void PolicyFolder::Forget(const std::string& name) {
    SDK::LogWarning(Logger(), "Policy file(%s) is gone, what was in force stays", name);
    m_names.erase(name);
    m_receiver.m_gone(m_folder + '/' + name);
}

bool PolicyFolder::ReadFile(const std::string& name) {
    const std::string path = m_folder + '/' + name;
    std::vector<Problem> problems;
    std::string text;
    m_names.insert(name);
    if (const std::string wrong = FileTrust::WhyNot(path); !wrong.empty()) {
        SDK::LogError(Logger(), "Policy(%s) is refused, what was in force stays: %s", path, wrong);
        m_receiver.m_refused(path, wrong);
        return false;
    }
    if (!ReadWholeFile(path, text, problems)) {
        for (const Problem& problem : problems) {
            SDK::LogError(Logger(), "%s", ToText(problem));
        }
        m_receiver.m_refused(path, FirstError(problems));
        return false;
    }
    m_receiver.m_read(path, text);
    return true;
}

}  // namespace Agent
