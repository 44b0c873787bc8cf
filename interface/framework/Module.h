#pragma once

#include "framework/PolicyCallback.h"
#include "framework/Task.h"

#include <Poco/Util/Subsystem.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Framework {

/// A plug-in of the agent: a set of tasks and the policies that steer them. A Poco subsystem, so
/// the engine starts modules in the order in which they were added and stops them in reverse.
///
/// Threads: the engine calls Init, UnInit and the policy callbacks one at a time; the module calls
/// the operations below from there.
/// Ownership: the creator's (CreateModule returns a new object); the engine shares it by counted
/// reference. A module's tasks are the module's own.
class Module : public Poco::Util::Subsystem {
public:
    explicit Module(const std::string& name);
    ~Module() override;

    const char* name() const override;

    /// Starts the module. @return 0; anything else ends the agent's start
    virtual int Init();

    /// Stops the module: unregisters what it left registered and drops its policy callbacks.
    /// @return 0
    virtual int UnInit();

    /// The registered task of that name, of whichever module, or null. The pointer is good for as
    /// long as the task stays registered.
    Task* FindTask(const std::string& taskName);

    /// Registers a task and starts it. Inside a policy callback the start waits until that policy
    /// has been attached to the task; the result then speaks of the registration alone.
    /// @param passive  true for a task without a thread: Init and UnInit are called, Run is not
    /// @return 0; -1 when the name is taken; otherwise Init's result or a failed thread start
    int RegisterTask(Task* task, bool passive);

    /// Stops a task. Returns when its thread has ended and UnInit has run.
    /// @return 0; -1 when no such task is registered; -2 when called on the task's own thread
    int UnRegisterTask(const std::string& taskName);

    /// Receives the feature policies that are delivered under a key. The newest callback of a key
    /// counts.
    /// @param callback  owned by the engine from here on
    void RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback);

protected:
    /// Reads a number from the agent's configuration. One that is out of range is logged.
    /// @param standard  used when the key is not set or the number is out of range
    /// @param most      the largest allowed; the smallest is 1
    static std::uint64_t ReadNumber(const std::string& key, std::uint64_t standard,
                                    std::uint64_t most);

    void initialize(Poco::Util::Application& application) override;
    void uninitialize() override;

private:
    friend class Engine;

    const std::string m_name;
    bool m_started = false;
    std::vector<std::string> m_taskNames;
    std::vector<std::string> m_policyKeys;
};

/// The type of the factory "CreateModule" that every module library exports with C linkage.
using CreateModuleFunction = Module* (*)();

}  // namespace Framework
