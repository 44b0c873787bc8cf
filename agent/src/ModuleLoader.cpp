#include "ModuleLoader.h"

#include "AgentLog.h"
#include "FileTrust.h"
#include "OptionalModule.h"
#include "framework/Engine.h"
#include "framework/Module.h"

#include <Poco/Exception.h>
#include <Poco/Path.h>

#include <filesystem>
#include <system_error>

namespace Agent {

namespace {

constexpr const char* kFactory = "CreateModule";
constexpr const char* kInstalledFolder = "/usr/local/corvex/module";

}  // namespace

ModuleLoader::~ModuleLoader() {
    for (Poco::SharedLibrary& library : m_libraries) {
        library.unload();
    }
}

const std::vector<std::string>& ModuleLoader::ModuleNames() {
    static const std::vector<std::string> names = {"process_collect_module", "filenotify_module",
                                                   "net_collect_module", "data_comm_module",
                                                   "vmescape_module"};
    return names;
}

std::string ModuleLoader::DefaultFolder() {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path beside = self.parent_path().parent_path() / "module";
    return std::filesystem::is_directory(beside, error) ? beside.string() : kInstalledFolder;
}

bool ModuleLoader::Load(Framework::Engine& engine, const std::string& folder,
                        const std::string& name, bool optional) {
    const std::string path =
        Poco::Path::forDirectory(folder).setFileName("lib" + name + ".so").toString();
    if (const std::string wrong = FileTrust::WhyNot(path); !wrong.empty()) {
        SDK::LogError(Logger(), "Module(%s) is refused: %s", name, wrong);
        return false;
    }
    Poco::SharedLibrary& library = m_libraries.emplace_back();
    try {
        library.load(path);
        auto create =
            reinterpret_cast<Framework::CreateModuleFunction>(library.getSymbol(kFactory));
        Framework::Module* module = create();
        engine.addSubsystem(optional ? new OptionalModule(module) : module);
    } catch (const Poco::Exception& exception) {
        SDK::LogError(Logger(), "Module(%s) cannot be loaded: %s", name, exception.displayText());
        return false;
    }
    SDK::LogInformation(Logger(), "Module(%s) loaded from %s", name, path);
    return true;
}

}  // namespace Agent
