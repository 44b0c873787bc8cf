#include "framework/Module.h"

#include "FrameworkLog.h"
#include "framework/Engine.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Util/AbstractConfiguration.h>
#include <Poco/Util/Application.h>

#include <utility>

namespace Framework {

Module::Module(const std::string& name) : m_name(name) {}

Module::~Module() = default;

const char* Module::name() const { return m_name.c_str(); }

int Module::Init() { return 0; }

int Module::UnInit() {
    // Newest first, as modules themselves are stopped.
    const std::vector<std::string> taskNames = std::exchange(m_taskNames, {});
    for (auto taskName = taskNames.rbegin(); taskName != taskNames.rend(); ++taskName) {
        UnRegisterTask(*taskName);
    }
    Engine* engine = Engine::Current();
    for (const std::string& key : std::exchange(m_policyKeys, {})) {
        if (engine != nullptr) {
            engine->DropPolicyCallback(key);
        }
    }
    return 0;
}

Task* Module::FindTask(const std::string& taskName) {
    Engine* engine = Engine::Current();
    return engine == nullptr ? nullptr : engine->FindTask(taskName);
}

int Module::RegisterTask(Task* task, bool passive) {
    Engine* engine = Engine::Current();
    const int result = engine == nullptr ? -1 : engine->RegisterTask(task, passive);
    if (result == 0) {
        m_taskNames.push_back(task->name());
    }
    return result;
}

int Module::UnRegisterTask(const std::string& taskName) {
    std::erase(m_taskNames, taskName);
    Engine* engine = Engine::Current();
    return engine == nullptr ? -1 : engine->UnRegisterTask(taskName);
}

void Module::RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback) {
    std::unique_ptr<AbstractPolicyCallback> owned(callback);
    if (Engine* engine = Engine::Current()) {
        m_policyKeys.push_back(key);
        engine->RegisterPolicyCallback(key, owned.release());
    }
}

std::uint64_t Module::ReadNumber(const std::string& key, std::uint64_t standard,
                                 std::uint64_t most) {
    const std::uint64_t number =
        Poco::Util::Application::instance().config().getUInt64(key, standard);
    if (number >= 1 && number <= most) {
        return number;
    }
    SDK::LogError(Logger(), "Configuration %s is %lu, expected 1 to %lu. %lu is used.", key,
                  static_cast<unsigned long>(number), static_cast<unsigned long>(most),
                  static_cast<unsigned long>(standard));
    return standard;
}

void Module::initialize(Poco::Util::Application& /*application*/) {
    const int result = Init();
    if (result != 0) {
        // What a failed Init had set up already goes again.
        Module::UnInit();
        throw Poco::RuntimeException(
            Poco::format("module %s does not start, Init returned %d", m_name, result));
    }
    m_started = true;
}

void Module::uninitialize() {
    if (std::exchange(m_started, false)) {
        UnInit();
    }
}

}  // namespace Framework
