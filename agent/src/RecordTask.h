#pragma once

#include "Recording.h"
#include "filenotify/FileNotifyMessage.h"
#include "framework/Task.h"
#include "process_collect/ProcsMessage.h"
#include "sdk/Mutex.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Agent {

/// "record_task": asks the collectors for the same as the detection does, and writes what they tell
/// into a recording.
///
/// A file access names only a process, and the detection asks the process collector for it, whose
/// answers are never older than the question. So what the collector has been told of processes by
/// the moment of an access stands before the access in the recording.
///
/// Threads: see Framework::Task; TakeDirectories on any. Ownership: owns the recording.
class RecordTask : public Framework::Task {
public:
    static constexpr const char* NAME = "record_task";

    explicit RecordTask(std::unique_ptr<Recording> recording);
    ~RecordTask() override;

    /// The directories whose accesses are to be recorded from now on.
    void TakeDirectories(std::set<std::string> directories);

    /// Subscribes. @return 0
    int Init() override;

    /// Ends the subscriptions, records what still waits and a last table of sockets. @return 0
    int UnInit() override;

    /// Records until the task is cancelled. @return 0
    int Run() override;

private:
    using Clock = std::chrono::steady_clock;
    using Messages = std::vector<std::shared_ptr<Framework::Message>>;

    template <typename MessageT>
    void Subscribe();
    void FollowDirectories();
    bool Watch(const std::string& path, bool add);
    void Unsubscribe();
    void TakeEvents();
    void TakeRest();
    void AddProcesses(const Messages& messages);
    void AddFiles(const Messages& messages);
    void TakeSnapshot();
    void TakeSockets();
    void TakeLastSockets();
    static bool ReadSockets(SocketMap& table);
    void NoteLosses();
    void NoteCollectorLosses();
    int MillisecondsLeft() const;

    const std::unique_ptr<Recording> m_recording;
    bool m_subscribed = false;
    bool m_begun = false;
    Messages m_held;  // file accesses that came while the process collector caught up
    std::set<std::string> m_watched;
    SocketMap m_sockets;
    bool m_socketsTold = false;
    Clock::time_point m_nextLook;
    Clock::time_point m_nextSnapshot;
    std::uint64_t m_lost = 0;
    bool m_snapshotDue = false;
    std::map<std::string, std::uint64_t> m_collectorLosses;

    SDK::Mutex m_mutex;
    std::set<std::string> m_directories SDK_GUARDED_BY(m_mutex);
};

}  // namespace Agent
