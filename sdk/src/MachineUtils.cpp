#include "sdk/MachineUtils.h"

#include "sdk/StrUtils.h"

#include <utility>
#include <vector>

namespace SDK {

namespace {

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
    StrUtils::Trim(rest);
    return rest.substr(0, rest.find(' '));
}

/// The value of the first key that has one, else UNKNOWN.
std::string GetFirstItem(const std::string& cmdline, const char* first, const char* second) {
    std::string value;
    if (MachineUtils::GetItemFromCmdline(cmdline, first, value) != 0) {
        MachineUtils::GetItemFromCmdline(cmdline, second, value);
    }
    return value;
}

}  // namespace

int MachineUtils::GetItemFromCmdline(const std::string& cmdline, const std::string& key,
                                     std::string& value) {
    std::vector<std::string> pieces;
    StrUtils::Split(cmdline, ",", pieces);
    for (std::string& piece : pieces) {
        StrUtils::Trim(piece);
        std::string found = FindInPiece(piece, key);
        if (!found.empty()) {
            value = std::move(found);
            return 0;
        }
    }
    value = UNKNOWN;
    return -1;
}

std::string MachineUtils::GetNameFromCmdline(const std::string& cmdline) {
    return GetFirstItem(cmdline, "-name guest", "-name");
}

std::string MachineUtils::GetUuidFromCmdline(const std::string& cmdline) {
    return GetFirstItem(cmdline, "virsh domuuid", "-uuid");
}

}  // namespace SDK
