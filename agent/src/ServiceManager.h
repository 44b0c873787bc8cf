#pragma once

#include <chrono>
#include <string>

namespace Agent {

/// What the agent tells the service manager that started it, by sd_notify(3). Where none did,
/// nothing is told and nothing is expected.
class ServiceManager {
public:
    /// Asks whether the manager wants signs of life.
    ServiceManager();

    /// How often Alive is to be called; 0 when nobody waits for it. Half of the time after which
    /// the manager acts.
    std::chrono::milliseconds AlivePeriod() const { return m_alivePeriod; }

    void Ready(const std::string& status) const;
    void Alive() const;
    void Status(const std::string& status) const;
    void Stopping() const;

private:
    std::chrono::milliseconds m_alivePeriod{0};
};

}  // namespace Agent
