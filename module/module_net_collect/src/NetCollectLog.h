#pragma once

#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace NetCollect {

/// The logger of the network collector.
inline Poco::Logger* Logger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("net_collect_module");
}

}  // namespace NetCollect
