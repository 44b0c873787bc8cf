#pragma once

#include <string>

namespace Engine {

/// Where an alarm comes from, for receivers that hear many hosts. Formats that have a place for it
/// carry it; the alarm's own document does not.
struct HostIdentity {
    static constexpr const char* BOOT_ID_FILE = "/proc/sys/kernel/random/boot_id";  ///< random(4)

    /// This host's, as it is now. A boot id that cannot be read is logged and left empty; the name
    /// is never empty.
    static HostIdentity Read(const std::string& bootIdFile = BOOT_ID_FILE);

    std::string m_name;          ///< as hostname(1) tells it
    std::string m_bootId;        ///< a UUID that the kernel makes at each boot; empty when unknown
    std::string m_agentVersion;  ///< "0.1.0"
};

}  // namespace Engine
