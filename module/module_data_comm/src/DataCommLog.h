#pragma once

#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

/// The reporter's logger.
inline Poco::Logger* GetDataCommLogger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("data_comm_module");
}

}  // namespace Engine
