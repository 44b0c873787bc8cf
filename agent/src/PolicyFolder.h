#pragma once

#include <functional>
#include <set>
#include <string>

struct inotify_event;

namespace Agent {

/// A folder of policy files: reads them and tells when one changes.
///
/// A folder that is missing, or goes away, is waited for: the nearest folder above it is watched
/// until it is there.
/// Threads: one.
class PolicyFolder {
public:
    /// Who is told of the files. Called with the path of a file, and:
    struct Receiver {
        /// ... the text of one that is new or changed.
        std::function<void(const std::string& path, const std::string& text)> m_read;
        /// ... why it is not read. That is logged already.
        std::function<void(const std::string& path, const std::string& why)> m_refused;
        /// ... nothing more: it is gone. That is logged already, too.
        std::function<void(const std::string& path)> m_gone;
    };

    PolicyFolder(std::string folder, Receiver receiver);
    ~PolicyFolder();
    PolicyFolder(const PolicyFolder&) = delete;
    PolicyFolder& operator=(const PolicyFolder&) = delete;

    /// Starts to watch. @return false when the kernel gives no watch (logged)
    bool Start();

    /// Reads every policy file, by name. @return how many were handed to the receiver
    int ReadAll();

    /// Handles what Descriptor announces: each changed file is read once, however often it changed.
    void HandleChanges();

    /// Readable when something changed. Owned by the folder.
    int Descriptor() const { return m_descriptor; }

private:
    /// What a batch of events came to.
    struct Changes {
        std::set<std::string> m_written;
        std::set<std::string> m_removed;
        bool m_all = false;         // any file may have changed
        bool m_folderGone = false;  // deleted or renamed
    };

    Changes CollectChanges();
    void Note(const inotify_event& event, Changes& changes) const;
    bool Watch();
    bool WatchAbove();
    void Reattach();
    bool ReadFile(const std::string& name);
    void Forget(const std::string& name);

    const std::string m_folder;
    const Receiver m_receiver;
    std::set<std::string> m_names;  // of the files that were read or refused
    int m_descriptor = -1;
    int m_watch = -1;       // -1: the folder is not there, and one above it is watched
    int m_watchAbove = -1;  // -1: the folder itself is watched
};

}  // namespace Agent
