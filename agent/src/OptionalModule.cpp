#include "OptionalModule.h"

#include "AgentLog.h"

#include <string>
#include <utility>

namespace Agent {

OptionalModule::OptionalModule(Framework::Module* module)
    : Framework::Module(module->name()), m_module(module) {}

OptionalModule::~OptionalModule() = default;

int OptionalModule::Init() {
    const int result = m_module->Init();
    m_running = result == 0;
    if (!m_running) {
        // What it had set up before it gave up goes again.
        m_module->Framework::Module::UnInit();
        SDK::LogWarning(
            Logger(), "Module(%s) is optional and does not start(%d), the agent goes on without it",
            std::string(name()), result);
    }
    return 0;
}

int OptionalModule::UnInit() {
    if (std::exchange(m_running, false)) {
        m_module->UnInit();
    }
    return Framework::Module::UnInit();
}

}  // namespace Agent
