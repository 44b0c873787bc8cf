#include "sdk/LoggerUtils.h"

namespace SDK {

LoggerUtils* LoggerUtils::GetInstance() {
    // Never destroyed: threads may log until the very end of the process.
    static auto* const instance = new LoggerUtils;
    return instance;
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& moduleName, bool ownLevel) {
    const LockGuard lock(m_mutex);
    Poco::Logger& logger = Poco::Logger::get(moduleName);
    if (m_ownLevel.try_emplace(moduleName, ownLevel).second) {
        logger.setChannel(m_channel);
        if (!ownLevel) {
            logger.setLevel(m_level);
        }
    }
    return &logger;
}

void LoggerUtils::Configure(const Poco::AutoPtr<Poco::Channel>& channel, int level) {
    const LockGuard lock(m_mutex);
    m_channel = channel;
    m_level = level;
    Apply();
}

void LoggerUtils::Restore() {
    const LockGuard lock(m_mutex);
    Apply();
}

void LoggerUtils::Apply() {
    for (const auto& [name, ownLevel] : m_ownLevel) {
        Poco::Logger& logger = Poco::Logger::get(name);
        logger.setChannel(m_channel);
        if (!ownLevel) {
            logger.setLevel(m_level);
        }
    }
}

}  // namespace SDK
