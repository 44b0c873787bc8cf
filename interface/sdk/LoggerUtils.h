#pragma once

#include "sdk/Mutex.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>

#include <map>
#include <string>

namespace SDK {

/// Hands out the process's loggers, one for each module, and keeps their channel and level alike.
///
/// Until Configure was called a logger has no channel, and nothing is written.
/// Threads: all operations may be called from any thread.
class LoggerUtils {
public:
    /// The one instance of the process. It lives until the process ends; never null.
    static LoggerUtils* GetInstance();

    /// The logger of a module, made on first use.
    /// @param moduleName  also the logger's name, as it stands in every line
    /// @param ownLevel    true when the module sets the level itself: Configure then leaves it
    /// alone
    /// @return owned by Poco's logger registry, valid until the process ends
    Poco::Logger* GetModuleLogger(const std::string& moduleName, bool ownLevel = false);

    /// Gives every logger, those made later too, this channel and level. Call it while no other
    /// thread logs: Poco's loggers read their channel without a lock.
    /// @param channel  where lines go; null silences all loggers
    /// @param level    a Poco::Message::Priority; lines above it are not written
    void Configure(const Poco::AutoPtr<Poco::Channel>& channel, int level);

    /// Gives every logger its channel and level again, after something else changed them all.
    void Restore();

private:
    LoggerUtils() = default;
    void Apply() SDK_REQUIRES(m_mutex);

    SDK::Mutex m_mutex;
    std::map<std::string, bool> m_ownLevel SDK_GUARDED_BY(m_mutex);  // by logger name
    Poco::AutoPtr<Poco::Channel> m_channel SDK_GUARDED_BY(m_mutex);
    int m_level SDK_GUARDED_BY(m_mutex) = Poco::Message::PRIO_INFORMATION;
};

}  // namespace SDK
