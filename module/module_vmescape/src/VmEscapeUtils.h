#pragma once

#include "sdk/MachineUtils.h"

#include <json/value.h>

#include <string>

namespace Engine {

/// What all detections need: options out of a virtualization command line, and the fields that
/// every alarm has. Stateless: any thread may call any function at any time.
class VmEscapeUtils {
public:
    /// See SDK::MachineUtils for this and the three look-ups.
    static constexpr const char* UNKNOWN = SDK::MachineUtils::UNKNOWN;

    /// Compares the beginnings of two C strings, byte by byte.
    /// @param len  how many bytes; 0, or more than str1 has, asks whether str1 is a prefix of str2
    /// @return false also when a pointer is null, or when str1 is asked to be a prefix and is empty
    static bool QuickCompareString(const char* str1, const char* str2, unsigned int len);

    static int GetItemFromCmdline(const std::string& cmdline, const std::string& key,
                                  std::string& value);
    static std::string GetVmNameFromCmdline(const std::string& cmdline);
    static std::string GetVmUUIDFromCmdline(const std::string& cmdline);

    /// Writes the fields that all alarms share into the alarm; its other fields stay. @return 0
    static int GenerateAlarmCommonInfo(Json::Value& alarm);
};

}  // namespace Engine
