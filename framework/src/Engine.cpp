#include "framework/Engine.h"

#include "PolicyStore.h"
#include "TaskRegistry.h"
#include "sdk/LoggerUtils.h"

#include <atomic>
#include <utility>

namespace Framework {

namespace {

std::atomic<Engine*> g_current{nullptr};

}  // namespace

Engine::Engine()
    : m_tasks(std::make_unique<TaskRegistry>()), m_policies(std::make_unique<PolicyStore>()) {
    // Poco's application gives every logger of the process a console; ours go where they were told.
    SDK::LoggerUtils::GetInstance()->Restore();
    g_current.store(this);
}

Engine::~Engine() {
    StopModules();
    m_tasks.reset();  // while tasks can still find the engine
    g_current.store(nullptr);
}

Engine* Engine::Current() { return g_current.load(); }

// Modules only, and not through Application::initialize: that would let Poco's own logging
// subsystem set the loggers up anew, and its counterpart does nothing after a start that failed
// half-way.
void Engine::StartModules() {
    try {
        for (auto& subsystem : subsystems()) {
            if (auto* module = dynamic_cast<Module*>(subsystem.get())) {
                module->initialize(*this);
            }
        }
    } catch (...) {
        StopModules();
        throw;
    }
}

void Engine::StopModules() {
    auto& all = subsystems();
    for (auto subsystem = all.rbegin(); subsystem != all.rend(); ++subsystem) {
        if (auto* module = dynamic_cast<Module*>(subsystem->get())) {
            module->uninitialize();
        }
    }
}

Task* Engine::FindTask(const std::string& taskName) { return m_tasks->Find(taskName); }

int Engine::DeliverMessage(const std::string& taskName, std::shared_ptr<Message> message) {
    return m_tasks->Deliver(taskName, std::move(message));
}

int Engine::RegisterTask(Task* task, bool passive) {
    if (task != nullptr) {
        // A task that comes after its policy does not have to wait for the next one.
        if (std::shared_ptr<FeaturePolicy> policy = GetPolicy(task->GetFeatureName())) {
            task->AttachFeaturePolicy(std::move(policy));
        }
    }
    return m_tasks->Register(task, passive);
}

int Engine::UnRegisterTask(const std::string& taskName) { return m_tasks->Unregister(taskName); }

void Engine::RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback) {
    m_policies->RegisterCallback(key, callback);
}

void Engine::DropPolicyCallback(const std::string& key) { m_policies->DropCallback(key); }

Engine::PolicyResult Engine::DeliverPolicy(const std::string& key, const std::string& featureName,
                                           const std::string& content) {
    PolicyResult result = PolicyResult::REFUSED;
    m_tasks->RunHoldingStarts([&] { result = m_policies->Deliver(key, featureName, content); });
    return result;
}

std::shared_ptr<FeaturePolicy> Engine::GetPolicy(const std::string& featureName) const {
    return m_policies->Get(featureName);
}

std::vector<Engine::TaskStatus> Engine::GetTaskStatus() const { return m_tasks->Status(); }

}  // namespace Framework
