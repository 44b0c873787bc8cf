#pragma once

#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Framework {

/// The logger of the framework itself.
inline Poco::Logger* Logger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework");
}

}  // namespace Framework
