#pragma once

#include "framework/Engine.h"
#include "framework/Task.h"
#include "sdk/Mutex.h"

#include <Poco/AutoPtr.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Framework {

/// The registered tasks: it starts and stops them and carries messages to them.
///
/// Threads: Find, Deliver and Status on any thread. Register, Unregister and RunHoldingStarts one
/// at a time; they wait for each other. A task's start and stop run outside the lock of the map, so
/// that a task may send messages from its Init and UnInit. Ownership: holds one counted reference
/// to each task from Register to Unregister.
class TaskRegistry {
public:
    TaskRegistry() = default;
    ~TaskRegistry();
    TaskRegistry(const TaskRegistry&) = delete;
    TaskRegistry& operator=(const TaskRegistry&) = delete;

    /// See Module::RegisterTask.
    int Register(Task* task, bool passive);

    /// See Module::UnRegisterTask.
    int Unregister(const std::string& taskName);

    /// The task of that name, or null.
    Task* Find(const std::string& taskName) const;

    /// See Engine::DeliverMessage.
    int Deliver(const std::string& taskName, std::shared_ptr<Message> message);

    /// Runs a function. Tasks that it registers are findable at once, but start when it is done.
    void RunHoldingStarts(const std::function<void()>& function);

    /// All tasks, by name.
    std::vector<Engine::TaskStatus> Status() const;

private:
    struct Entry {
        Poco::AutoPtr<Task> m_task;
        bool m_passive = false;
        bool m_started = false;
    };

    int Start(const std::string& taskName) SDK_REQUIRES(m_control);
    bool Insert(Task* task, bool passive);
    bool Remove(const std::string& taskName, Entry& removed);

    SDK::RecursiveMutex m_control;  // taken first
    bool m_holding SDK_GUARDED_BY(m_control) = false;
    std::vector<std::string> m_held SDK_GUARDED_BY(m_control);

    mutable SDK::SharedMutex m_mutex;
    std::map<std::string, Entry> m_entries SDK_GUARDED_BY(m_mutex);
};

}  // namespace Framework
