#pragma once

#include <string>

namespace SDK {

/// What the command line of a virtualization program tells of its virtual machine. Alarms and the
/// agent's list of machines both read it here, so they call a machine by the same name. Stateless:
/// any thread may call any function at any time.
class MachineUtils {
public:
    /// What a look-up gives that finds nothing; also the VM name in an alarm. Spelt so on purpose:
    /// receivers of alarms compare with it.
    static constexpr const char* UNKNOWN = "Unknow";

    /// Finds the value of an option: the command line is cut at commas, and in each piece the first
    /// "key " or else "key=" is followed by the value, which ends at a blank.
    /// The key is found anywhere in a piece, not only where an argument begins.
    /// @param value  always written; UNKNOWN when there is none
    /// @return 0 when found, -1 when not
    static int GetItemFromCmdline(const std::string& cmdline, const std::string& key,
                                  std::string& value);

    /// The VM's name, from "-name guest=NAME" or "-name NAME", or UNKNOWN.
    static std::string GetNameFromCmdline(const std::string& cmdline);

    /// The VM's UUID, from a management tool's query or from "-uuid UUID", or UNKNOWN.
    static std::string GetUuidFromCmdline(const std::string& cmdline);
};

}  // namespace SDK
