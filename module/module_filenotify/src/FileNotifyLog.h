#pragma once

#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace FileNotify {

/// The logger of the file notifier.
inline Poco::Logger* Logger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module");
}

}  // namespace FileNotify
