#include "VmEscapeUtils.h"

#include "sdk/CryptoCodeUtils.h"
#include "sdk/StrUtils.h"
#include "sdk/TimeUtils.h"

#include <cstring>
#include <vector>

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

/// The value that follows the key in one piece; empty when there is none.
std::string FindInPiece(const std::string& piece, const std::string& key) {
    std::size_t found = piece.find(key + " ");
    if (found == std::string::npos) {
        found = piece.find(key + "=");
    }
    if (found == std::string::npos) {
        return "";
    }
    std::string rest = piece.substr(found + key.length() + 1);
    SDK::StrUtils::Trim(rest);
    return rest.substr(0, rest.find(' '));
}

/// The value of the first key that has one, else UNKNOWN.
std::string GetFirstItem(const std::string& cmdline, const char* first, const char* second) {
    std::string value;
    if (VmEscapeUtils::GetItemFromCmdline(cmdline, first, value) != 0) {
        VmEscapeUtils::GetItemFromCmdline(cmdline, second, value);
    }
    return value;
}

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
    std::vector<std::string> pieces;
    SDK::StrUtils::Split(cmdline, ",", pieces);
    for (std::string& piece : pieces) {
        SDK::StrUtils::Trim(piece);
        std::string found = FindInPiece(piece, key);
        if (!found.empty()) {
            value = std::move(found);
            return 0;
        }
    }
    value = UNKNOWN;
    return -1;
}

std::string VmEscapeUtils::GetVmNameFromCmdline(const std::string& cmdline) {
    return GetFirstItem(cmdline, "-name guest", "-name");
}

std::string VmEscapeUtils::GetVmUUIDFromCmdline(const std::string& cmdline) {
    return GetFirstItem(cmdline, "virsh domuuid", "-uuid");
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
