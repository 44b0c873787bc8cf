#pragma once

#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

/// The module's logger. Fetched once by each object that logs.
inline Poco::Logger* GetVmEscapeLogger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("vmescape_module", false);
}

}  // namespace Engine
