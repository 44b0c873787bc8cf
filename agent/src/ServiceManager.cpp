#include "ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

namespace Agent {

ServiceManager::ServiceManager() {
    std::uint64_t microseconds = 0;
    if (::sd_watchdog_enabled(0, &microseconds) > 0) {
        m_alivePeriod = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::microseconds(microseconds)) /
                        2;
    }
}

void ServiceManager::Ready(const std::string& status) const {
    ::sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
}

void ServiceManager::Alive() const { ::sd_notify(0, "WATCHDOG=1"); }

void ServiceManager::Status(const std::string& status) const {
    ::sd_notify(0, ("STATUS=" + status).c_str());
}

void ServiceManager::Stopping() const { ::sd_notify(0, "STOPPING=1"); }

}  // namespace Agent
