#pragma once

#include "framework/Module.h"

#include <Poco/AutoPtr.h>

namespace FileNotify {

class FileNotifyTask;

/// The file notifier as a module.
///
/// Configuration: "filenotify.backlog" (messages kept for a subscriber that is behind).
///
/// Threads and ownership: see Framework::Module.
class FileNotifyModule : public Framework::Module {
public:
    FileNotifyModule();
    ~FileNotifyModule() override;

    /// @return 0; -1 when the kernel gives no file notification or the task is refused
    int Init() override;
    int UnInit() override;

private:
    // A Poco task is counted; this reference is the module's.
    Poco::AutoPtr<FileNotifyTask> m_task;
};

}  // namespace FileNotify
