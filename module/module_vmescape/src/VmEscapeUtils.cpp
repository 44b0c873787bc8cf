#include "VmEscapeUtils.h"

#include "sdk/CryptoCodeUtils.h"
#include "sdk/TimeUtils.h"

#include <cstring>

namespace Engine {

namespace {

// The codes under which the receiving side files the findings of this module.
constexpr int kEventCategory = 2000;
constexpr int kEventType = 2043;
constexpr int kSeverity = 3;
constexpr int kEventCount = 1;
constexpr int kAttackPhase = 4;
constexpr int kAttackTag = 2;
constexpr int kConfidence = 60;

}  // namespace

bool VmEscapeUtils::QuickCompareString(const char* str1, const char* str2, unsigned int len) {
    if (str1 == nullptr || str2 == nullptr) {
        return false;
    }
    const std::size_t length1 = std::strlen(str1);
    const std::size_t compared = len >= 1 && len <= length1 ? len : length1;
    // strncmp stops where a shorter str2 ends, and there the two differ.
    return compared != 0 && std::strncmp(str1, str2, compared) == 0;
}

int VmEscapeUtils::GetItemFromCmdline(const std::string& cmdline, const std::string& key,
                                      std::string& value) {
    return SDK::MachineUtils::GetItemFromCmdline(cmdline, key, value);
}

std::string VmEscapeUtils::GetVmNameFromCmdline(const std::string& cmdline) {
    return SDK::MachineUtils::GetNameFromCmdline(cmdline);
}

std::string VmEscapeUtils::GetVmUUIDFromCmdline(const std::string& cmdline) {
    return SDK::MachineUtils::GetUuidFromCmdline(cmdline);
}

int VmEscapeUtils::GenerateAlarmCommonInfo(Json::Value& alarm) {
    alarm["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    alarm["occur_time"] = Json::Value::Int64{SDK::TimeUtils::GetCurrentTimestampS()};
    alarm["event_category"] = kEventCategory;
    alarm["event_type"] = kEventType;
    alarm["severity"] = kSeverity;
    alarm["event_count"] = kEventCount;
    alarm["attack_phase"] = kAttackPhase;
    alarm["attack_tag"] = kAttackTag;
    alarm["confidence"] = kConfidence;
    alarm["detect_module"] = "vmescape_module";
    return 0;
}

}  // namespace Engine
