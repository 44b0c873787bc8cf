#include "FullProcessList.h"

#include "framework/Engine.h"
#include "process_collect/ProcsFullTask.h"
#include "sdk/Log.h"

namespace Engine {

bool GetFullProcessList(Poco::Logger* logger,
                        std::map<int, std::shared_ptr<ProcsMessage::procInfo>>& procs) {
    procs.clear();
    Framework::Engine* engine = Framework::Engine::Current();
    Framework::Task* task = engine == nullptr ? nullptr : engine->FindTask("procs_full_task");
    auto* procsTask = dynamic_cast<ProcsFullTask*>(task);
    if (procsTask == nullptr) {
        SDK::LogError(logger, "procsTask is null");
        return false;
    }
    procsTask->GetProcsMap(procs);
    return !procs.empty();
}

}  // namespace Engine
