#include "TaskRegistry.h"

#include "FrameworkLog.h"

#include <algorithm>
#include <utility>

namespace Framework {

namespace {

constexpr int kNoSuchTask = -1;
constexpr int kNameTaken = -1;
constexpr int kOwnThread = -2;
constexpr int kInboxFull = -2;

}  // namespace

TaskRegistry::~TaskRegistry() {
    for (const Engine::TaskStatus& task : Status()) {
        SDK::LogError(Logger(), "Task(%s) is still registered while the engine ends", task.m_name);
        Unregister(task.m_name);
    }
}

int TaskRegistry::Register(Task* task, bool passive) {
    if (task == nullptr) {
        SDK::LogError(Logger(), "A null task cannot be registered");
        return kNoSuchTask;
    }
    const SDK::LockGuard control(m_control);
    if (!Insert(task, passive)) {
        SDK::LogError(Logger(), "Task(%s) cannot be registered, the name is taken", task->name());
        return kNameTaken;
    }
    if (m_holding) {
        m_held.push_back(task->name());
        return 0;
    }
    return Start(task->name());
}

int TaskRegistry::Unregister(const std::string& taskName) {
    const SDK::LockGuard control(m_control);
    const Task* task = Find(taskName);
    if (task != nullptr && task->m_thread.get_id() == std::this_thread::get_id()) {
        SDK::LogError(Logger(), "Task(%s) cannot unregister itself from its own thread", taskName);
        return kOwnThread;
    }
    Entry removed;
    if (!Remove(taskName, removed)) {
        return kNoSuchTask;
    }
    std::erase(m_held, taskName);
    if (removed.m_started) {
        removed.m_task->Stop();
    }
    return 0;
}

Task* TaskRegistry::Find(const std::string& taskName) const {
    const SDK::SharedLockGuard lock(m_mutex);
    const auto found = m_entries.find(taskName);
    return found == m_entries.end() ? nullptr : const_cast<Task*>(found->second.m_task.get());
}

int TaskRegistry::Deliver(const std::string& taskName, std::shared_ptr<Message> message) {
    // Held until the message is in the inbox: the task cannot be destroyed meanwhile, because
    // unregistering it needs the lock alone.
    const SDK::SharedLockGuard lock(m_mutex);
    const auto found = m_entries.find(taskName);
    if (found == m_entries.end()) {
        return kNoSuchTask;
    }
    Task& task = *found->second.m_task;
    if (task.InterceptMsg(message) != 0 || task.EnqueueMsg(message) == 1) {
        return 0;
    }
    return kInboxFull;
}

void TaskRegistry::RunHoldingStarts(const std::function<void()>& function) {
    const SDK::LockGuard control(m_control);
    m_holding = true;
    function();
    m_holding = false;
    const std::vector<std::string> held = std::exchange(m_held, {});
    for (const std::string& taskName : held) {
        Start(taskName);
    }
}

std::vector<Engine::TaskStatus> TaskRegistry::Status() const {
    const SDK::SharedLockGuard lock(m_mutex);
    std::vector<Engine::TaskStatus> tasks;
    for (const auto& [name, entry] : m_entries) {
        const Inbox& inbox = *entry.m_task->GetInbox();
        tasks.push_back({name, entry.m_task->GetFeatureName(), entry.m_passive,
                         entry.m_task->state() == Task::TASK_FINISHED, inbox.Depth(),
                         inbox.Capacity(), inbox.Accepted(), inbox.Lost(),
                         entry.m_task->GetPolicyUseCount(), entry.m_task->GetPolicyLastUse()});
    }
    return tasks;
}

int TaskRegistry::Start(const std::string& taskName) {
    Task* task = Find(taskName);
    bool passive = false;
    {
        const SDK::LockGuard lock(m_mutex);
        Entry& entry = m_entries.at(taskName);
        entry.m_started = true;
        passive = entry.m_passive;
    }
    const int result = task->Start(passive);
    if (result != 0) {
        Entry removed;
        Remove(taskName, removed);
    }
    return result;
}

bool TaskRegistry::Insert(Task* task, bool passive) {
    const SDK::LockGuard lock(m_mutex);
    return m_entries
        .try_emplace(task->name(), Entry{Poco::AutoPtr<Task>(task, true), passive, false})
        .second;
}

bool TaskRegistry::Remove(const std::string& taskName, Entry& removed) {
    const SDK::LockGuard lock(m_mutex);
    const auto found = m_entries.find(taskName);
    if (found == m_entries.end()) {
        return false;
    }
    removed = std::move(found->second);
    m_entries.erase(found);
    return true;
}

}  // namespace Framework
