#pragma once

#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace ProcessCollect {

/// The logger of the process collector.
inline Poco::Logger* Logger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("process_collect_module");
}

}  // namespace ProcessCollect
