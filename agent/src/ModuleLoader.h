#pragma once

#include <Poco/SharedLibrary.h>

#include <list>
#include <string>
#include <vector>

namespace Framework {
class Engine;
}

namespace Agent {

/// Opens the module libraries and hands their modules to the engine. The libraries stay open for
/// the loader's life, which must be longer than the engine's.
class ModuleLoader {
public:
    ModuleLoader() = default;
    ~ModuleLoader();
    ModuleLoader(const ModuleLoader&) = delete;
    ModuleLoader& operator=(const ModuleLoader&) = delete;

    /// All modules of this agent, in the order in which they start: collectors and the reporter
    /// before the product, whose requests would otherwise find nobody.
    static const std::vector<std::string>& ModuleNames();

    /// The folder of the modules when none is configured: beside the program's own, else the
    /// installed one.
    static std::string DefaultFolder();

    /// Opens lib<name>.so, calls its factory and adds the module to the engine.
    /// @param optional  true for a module whose refusal to start does not end the agent
    /// @return false when that fails (logged with the reason)
    bool Load(Framework::Engine& engine, const std::string& folder, const std::string& name,
              bool optional);

private:
    std::list<Poco::SharedLibrary> m_libraries;
};

}  // namespace Agent
