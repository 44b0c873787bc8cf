#pragma once

#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

#include <string>
#include <utility>

namespace Agent {

/// The agent's own logger.
inline Poco::Logger* Logger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("vmescape-agent");
}

/// What an operator sees without asking: the steps of the agent's own life.
template <typename... Args>
void LogNotice(const SDK::LogText& text, Args&&... args) {
    SDK::Log(Logger(), Poco::Message::PRIO_NOTICE, text, std::forward<Args>(args)...);
}

/// Sends the lines of all loggers to standard error: time, level, logger, text.
/// @param level  a level's name ("information"), checked by the settings
void StartLog(const std::string& level);

}  // namespace Agent
