#pragma once

#include "Inventory.h"
#include "Options.h"
#include "Recorder.h"
#include "ServiceManager.h"
#include "Settings.h"
#include "Status.h"
#include "StatusServer.h"
#include "TaskWatch.h"

#include <Poco/AutoPtr.h>

#include <memory>
#include <string>

namespace Framework {
class Engine;
}

namespace Agent {

class ModuleLoader;
class PolicyFolder;

/// A running agent: settings, modules, policies, and the loop that waits for signals and for
/// changed policy files. One a process; everything happens on the thread that calls Run.
class Agent {
public:
    explicit Agent(Options options);
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    /// Starts, runs until SIGTERM or SIGINT, and stops. @return an ExitCode
    int Run();

private:
    int CheckPrivileges() const;
    int StartModules();
    int StartRecording();
    bool LoadModules();
    bool StartPolicies();
    void DeliverPolicy(const std::string& path, const std::string& text);
    bool Loop();
    void Reload();
    void OpenStatus();
    std::string Tell(const std::string& request);
    void LookAtTasks();
    void LogTotals() const;

    const Options m_options;
    Settings m_settings;
    std::unique_ptr<ModuleLoader> m_loader;  // outlives the engine, whose modules are its code
    Poco::AutoPtr<Framework::Engine> m_engine;
    Recorder m_recorder;
    std::unique_ptr<PolicyFolder> m_policies;
    const ServiceManager m_manager;
    TaskWatch m_taskWatch;
    Status m_status;
    Inventory m_inventory;
    StatusServer m_statusServer;
    int m_signals = -1;
};

}  // namespace Agent
