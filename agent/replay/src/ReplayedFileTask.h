#pragma once

#include "RecordedWatches.h"
#include "framework/Inbox.h"
#include "framework/Task.h"
#include "sdk/Mutex.h"

#include <memory>
#include <string>
#include <vector>

namespace Replay {

/// "filenotify_task" of a replay: tells of the accesses in the directories that were asked for.
///
/// Threads: as Framework::Task; Tell and the questions on the one that plays. Ownership: the
/// watches stay the caller's, who changes them on that thread only, while nobody asks for
/// directories.
class ReplayedFileTask : public Framework::Task {
public:
    explicit ReplayedFileTask(const RecordedWatches& watches);
    ~ReplayedFileTask() override;

    /// Takes a watch request. @return 1: nothing is queued
    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override;

    /// Sends an access to those who asked for its directory.
    void Tell(int pid, int mask, const std::string& path);

    /// The directories that were ever asked for but not recorded.
    std::vector<std::string> NotRecorded();

private:
    struct Request {
        std::shared_ptr<Framework::Inbox> m_inbox;
        std::string m_directory;  // as it was asked for
        bool m_recursive = false;
        bool m_ended = false;
    };

    bool Concerns(const Request& request, const std::string& path) const;

    const RecordedWatches& m_watches;
    SDK::Mutex m_mutex;
    std::vector<Request> m_requests SDK_GUARDED_BY(m_mutex);
};

}  // namespace Replay
