#pragma once

#include "framework/EventWaiter.h"
#include "framework/Message.h"
#include "framework/MessageConsumer.h"
#include "framework/Policy.h"
#include "framework/TaskCondition.h"
#include "sdk/Mutex.h"

#include <Poco/Task.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Framework {

/// A unit of work with a thread, an inbox and a policy of its own.
///
/// Life: the owner constructs it and registers it with its module. The engine calls Init, then Run
/// on a new thread; to unregister it, the engine sets the state to TASK_CANCELLING (3), wakes the
/// thread, waits for it to end, and calls UnInit. The same object may be registered any number of
/// times.
///
/// Threads: Init and UnInit on the thread that registers, never while Run runs; Run, and with it
/// InterceptMsg's receiver side, on the task's own; EnqueueMsg, InterceptMsg and the accessors on
/// any. Ownership: the owner's; the engine holds one counted reference while the task is
/// registered.
class Task : public Poco::Task, public MessageConsumer {
public:
    /// @param name      unique among registered tasks; messages are addressed to it
    /// @param feature   the feature whose policy the task works by; may be empty
    /// @param capacity  messages that the inbox holds at the most
    Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
         unsigned int capacity);
    ~Task() override;

    /// The thread's body: calls Run unless the task was stopped before it got here. What Run throws
    /// is logged, and Run is called again after a pause: an alarm that found no memory must not end
    /// the detection.
    void runTask() override;

    /// Prepares a run. @return 0; anything else refuses the registration
    virtual int Init();

    /// Cleans up after a run: releases the messages still waiting. @return 0
    virtual int UnInit();

    /// The work, until the state is TASK_CANCELLING. @return 0
    virtual int Run();

    /// Puts a message into the inbox. @return 1 when it was added, 0 when the inbox is full
    virtual int EnqueueMsg(std::shared_ptr<Message>& message);

    /// Looks at a message before it is queued, on the sender's thread. Not 0: it is not queued.
    virtual int InterceptMsg(std::shared_ptr<Message>& message);

    /// Handles one message that HandleQueuedMsgs took. @return 0
    virtual int HandleMsg(const Message* message);

    /// Sends a message to a registered task.
    /// @param message  owned by this call, whatever it returns
    /// @return 0: in the inbox. -1: no such task. -2: its inbox is full; counted as its loss
    int SendDirectMsg(const std::string& taskName, Message* message);

    /// Moves up to max waiting messages to the end of the vector. The task's thread only.
    /// @return how many were moved
    int BulkRecvMsg(std::vector<std::shared_ptr<Message>>& messages, int max);

    /// Takes up to max waiting messages and hands each to HandleMsg. The task's thread only.
    /// @return how many were handled
    int HandleQueuedMsgs(int max);

    /// What the task's thread waits on.
    EventWaiter& GetEventWaiter() { return m_eventWaiter; }

    /// The policy in force, held for as long as the caller keeps the result; null before the first.
    /// Every call is counted and stamps the time.
    std::shared_ptr<FeaturePolicy> GetFeaturePolicy();

    /// Replaces the policy. The old one is freed when its last user lets go.
    void AttachFeaturePolicy(std::shared_ptr<FeaturePolicy> policy);

    /// How often the policy was used, and when last (seconds since the epoch, 0: never).
    std::uint64_t GetPolicyUseCount() const;
    std::int64_t GetPolicyLastUse() const;

    const std::string& GetFeatureName() const { return m_featureName; }
    TaskCondition::TaskType GetTaskType() const { return m_taskType; }

private:
    friend class TaskRegistry;

    bool RunOnce();
    void Pause(std::chrono::milliseconds pause) const;

    /// Calls Init and, unless the task is passive, starts the thread.
    /// @return 0, or what went wrong (logged)
    int Start(bool passive);
    /// Stops the thread, if there is one, and waits for it; then calls UnInit.
    void Stop();

    const std::string m_featureName;
    const TaskCondition::TaskType m_taskType;
    EventWaiter m_eventWaiter;
    std::thread m_thread;
    // Poco::Task::run sets the state to running whatever it was before. A stop that came first
    // would be forgotten; this flag remembers it.
    std::atomic<bool> m_stopRequested{false};

    mutable SDK::Mutex m_policyMutex;
    std::shared_ptr<FeaturePolicy> m_featurePolicy SDK_GUARDED_BY(m_policyMutex);
    std::uint64_t m_policyUseCount SDK_GUARDED_BY(m_policyMutex) = 0;
    std::int64_t m_policyLastUse SDK_GUARDED_BY(m_policyMutex) = 0;
};

}  // namespace Framework
