#pragma once

#include "process_collect/ProcsMessage.h"

#include <Poco/Logger.h>

#include <map>
#include <memory>

namespace Engine {

/// Asks the process collector for all live processes.
/// @param procs  replaced; the records are the caller's
/// @return true when the collector gave at least one; a missing collector is logged
/// Threads: any.
bool GetFullProcessList(Poco::Logger* logger,
                        std::map<int, std::shared_ptr<ProcsMessage::procInfo>>& procs);

}  // namespace Engine
