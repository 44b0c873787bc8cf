#pragma once

#include "FileNotifier.h"
#include "framework/Task.h"

#include <cstddef>

namespace FileNotify {

/// "filenotify_task": takes watch requests and sends the accesses to the tasks that asked.
///
/// Threads: see Framework::Task; the notifier is touched by the task's own thread, and by Init and
/// UnInit while that does not run.
class FileNotifyTask : public Framework::Task {
public:
    static constexpr const char* NAME = "filenotify_task";

    /// @param backlog  messages kept at the most for a subscriber whose inbox is full
    explicit FileNotifyTask(std::size_t backlog);

    /// @return 0; -1 when the kernel gives no file notification
    int Init() override;
    int UnInit() override;
    int Run() override;

    /// Handles a watch request; messages of other types are logged and ignored. @return 0
    int HandleMsg(const Framework::Message* message) override;

    /// For tests, while the task does not run.
    const FileNotifier& Notifier() const { return m_notifier; }

private:
    FileNotifier m_notifier;
};

}  // namespace FileNotify
