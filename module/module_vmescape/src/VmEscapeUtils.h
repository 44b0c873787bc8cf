#pragma once

#include <json/value.h>

#include <string>

namespace Engine {

/// What all detections need: options out of a virtualization command line, and the fields that
/// every alarm has. Stateless: any thread may call any function at any time.
class VmEscapeUtils {
public:
    /// What a look-up gives that finds nothing; also the VM name in an alarm. Spelt so on purpose:
    /// receivers of alarms compare with it.
    static constexpr const char* UNKNOWN = "Unknow";

    /// Compares the beginnings of two C strings, byte by byte.
    /// @param len  how many bytes; 0, or more than str1 has, asks whether str1 is a prefix of str2
    /// @return false also when a pointer is null, or when str1 is asked to be a prefix and is empty
    static bool QuickCompareString(const char* str1, const char* str2, unsigned int len);

    /// Finds the value of an option: the command line is cut at commas, and in each piece the first
    /// "key " or else "key=" is followed by the value, which ends at a blank.
    /// The key is found anywhere in a piece, not only where an argument begins.
    /// @param value  always written; UNKNOWN when there is none
    /// @return 0 when found, -1 when not
    static int GetItemFromCmdline(const std::string& cmdline, const std::string& key,
                                  std::string& value);

    /// The VM's name, from "-name guest=NAME" or "-name NAME", or UNKNOWN.
    static std::string GetVmNameFromCmdline(const std::string& cmdline);

    /// The VM's UUID, from a management tool's query or from "-uuid UUID", or UNKNOWN.
    static std::string GetVmUUIDFromCmdline(const std::string& cmdline);

    /// Writes the fields that all alarms share into the alarm; its other fields stay. @return 0
    static int GenerateAlarmCommonInfo(Json::Value& alarm);
};

}  // namespace Engine
