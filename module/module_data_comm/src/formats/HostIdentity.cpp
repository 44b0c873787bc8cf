#include "formats/HostIdentity.h"

#include "DataCommLog.h"
#include "sdk/FileUtils.h"
#include "sdk/StrUtils.h"

#include <Poco/Environment.h>
#include <Poco/Error.h>

namespace Engine {

namespace {

constexpr std::size_t kBootIdBytes = 64;  // a UUID has 36

// The name that every host has for itself (RFC 6761, 6.3), for one that was given none.
constexpr const char* kNameless = "localhost";

std::string ReadBootId(const std::string& file) {
    std::string id;
    bool truncated = false;
    if (SDK::FileUtils::ReadFile(file, truncated, id, kBootIdBytes) != 0) {
        SDK::LogWarning(GetDataCommLogger(), "Alarms carry no boot id: %s cannot be read: %s", file,
                        Poco::Error::getMessage(Poco::Error::last()));
    }
    SDK::StrUtils::Trim(id);
    return id;
}

}  // namespace

HostIdentity HostIdentity::Read(const std::string& bootIdFile) {
    const std::string name = Poco::Environment::nodeName();
    return {name.empty() ? kNameless : name, ReadBootId(bootIdFile), VMESCAPE_VERSION};
}

}  // namespace Engine
