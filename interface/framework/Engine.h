#pragma once

#include "framework/Module.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"

#include <Poco/Util/Application.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Framework {

class TaskRegistry;
class PolicyStore;

/// The heart of an agent: it holds the modules, runs their tasks, carries messages and delivers
/// policies. One in a process, reached as Poco::Util::Application::instance().
///
/// Threads: FindTask, DeliverMessage and GetTaskStatus on any thread; everything else on one
/// control thread at a time. Registering and unregistering from a task's thread is allowed as long
/// as nobody waits for that task to end. Ownership: shares the modules and the registered tasks,
/// owns policy callbacks and policies.
class Engine : public Poco::Util::Application {
public:
    /// What became of a delivered policy.
    enum class PolicyResult {
        ACCEPTED,     ///< in force now
        UNCHANGED,    ///< the same text is in force already
        REFUSED,      ///< the receiver refused it; what was in force stays
        NO_RECEIVER,  ///< nobody registered for the key
    };

    /// One task as the status shows it.
    struct TaskStatus {
        std::string m_name;
        std::string m_feature;
        bool m_passive = false;
        bool m_ended = false;  ///< its thread has ended, though nobody stopped it
        unsigned int m_inboxDepth = 0;
        unsigned int m_inboxCapacity = 0;
        std::uint64_t m_messagesAccepted = 0;
        std::uint64_t m_messagesLost = 0;
        std::uint64_t m_policyUses = 0;
        std::int64_t m_policyLastUse = 0;
    };

    Engine();
    ~Engine() override;

    /// The engine of this process, or null when the application is none (or none exists).
    static Engine* Current();

    /// Starts the modules that were added with addSubsystem, in that order.
    /// @throws Poco::Exception when a module refuses to start; those already started are stopped
    /// again
    void StartModules();

    /// Stops the modules in reverse order. Harmless when they are not started.
    void StopModules();

    /// The registered task of that name, or null.
    Task* FindTask(const std::string& taskName);

    /// Hands a message to a registered task.
    /// @return 0: in the inbox, or taken by the task's interception. -1: no such task. -2: inbox
    /// full
    int DeliverMessage(const std::string& taskName, std::shared_ptr<Message> message);

    /// See Module for these three.
    int RegisterTask(Task* task, bool passive);
    int UnRegisterTask(const std::string& taskName);
    void RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback);

    /// Destroys the callback of a key.
    void DropPolicyCallback(const std::string& key);

    /// Hands a policy text to the callback of a key and, when it is accepted, brings it into force.
    /// A refused text changes nothing. Exceptions of the receiver count as a refusal and are
    /// logged.
    PolicyResult DeliverPolicy(const std::string& key, const std::string& featureName,
                               const std::string& content);

    /// The policy in force for a feature, or null.
    std::shared_ptr<FeaturePolicy> GetPolicy(const std::string& featureName) const;

    /// All registered tasks, by name.
    std::vector<TaskStatus> GetTaskStatus() const;

private:
    std::unique_ptr<TaskRegistry> m_tasks;
    std::unique_ptr<PolicyStore> m_policies;
};

}  // namespace Framework
