#pragma once

#include "framework/Message.h"
#include "framework/Task.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

/// The options of a watch request: a row of eight flags, then lists and numbers, all off, empty or
/// zero unless set. The notifier of this agent acts on the first, sixth and seventh flag; the
/// others keep their places for requesters that were built against the whole row.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): its established name
struct _FileNotifyOpt {
    bool m_add = false;  ///< start to watch
    bool m_unused2 = false;
    bool m_unused3 = false;
    bool m_unused4 = false;
    bool m_unused5 = false;
    bool m_remove = false;     ///< stop to watch
    bool m_recursive = false;  ///< the whole tree below, directories made later included
    bool m_unused8 = false;
    std::vector<std::string> m_unusedList1;
    std::vector<std::string> m_unusedList2;
    unsigned int m_unusedNumber1 = 0;
    unsigned int m_unusedNumber2 = 0;
};

namespace Engine {

/// Asks "filenotify_task" to start or to stop watching a directory for a task.
class FileNotifyWatchMessage : public Framework::Message {
public:
    static constexpr const char* TYPE = "filenotify_watch";

    /// The mask value that stands for access, modify, open and close together.
    static constexpr unsigned int ALL_ACCESS = 1;

    /// @param task     the subscriber; must not be null
    /// @param path     the directory
    /// @param masks    which events; {1} is all of them
    /// @param options  what to do
    FileNotifyWatchMessage(Framework::Task* task, const std::string& path,
                           std::vector<unsigned int> masks, const _FileNotifyOpt& options)
        : Framework::Message(TYPE),
          m_inbox(task->GetInbox()),
          m_path(path),
          m_masks(std::move(masks)),
          m_options(options) {}

    /// Where the events go. Never null.
    const std::shared_ptr<Framework::Inbox>& GetInbox() const { return m_inbox; }
    const std::string& GetPath() const { return m_path; }
    const std::vector<unsigned int>& GetMasks() const { return m_masks; }
    const _FileNotifyOpt& GetOptions() const { return m_options; }

private:
    const std::shared_ptr<Framework::Inbox> m_inbox;
    const std::string m_path;
    const std::vector<unsigned int> m_masks;
    const _FileNotifyOpt m_options;
};

}  // namespace Engine
