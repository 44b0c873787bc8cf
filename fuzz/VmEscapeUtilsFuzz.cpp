// A guest's owner chooses the command line, so no text may lead a look-up astray. First line: the
// option asked for; the rest: the command line.

#include "FuzzInput.h"
#include "VmEscapeUtils.h"

#include <algorithm>

namespace {

using Engine::VmEscapeUtils;

void CheckItem(const std::string& cmdline, const std::string& key) {
    std::string value = "before";
    const int result = VmEscapeUtils::GetItemFromCmdline(cmdline, key, value);
    Require(result == 0 || (result == -1 && value == VmEscapeUtils::UNKNOWN));
    if (result == 0) {
        Require(value.find_first_of(" ,") == std::string::npos);
        Require(cmdline.find(key) != std::string::npos);
        Require(cmdline.find(value) != std::string::npos);
    }
}

void CheckIdentity(const std::string& cmdline, const std::string& identity) {
    Require(identity == VmEscapeUtils::UNKNOWN || cmdline.find(identity) != std::string::npos);
}

/// The question asked of two C strings, answered in another way.
void CheckPrefix(const std::string& first, const std::string& second) {
    const std::string prefix = first.c_str();
    const std::string text = second.c_str();
    Require(VmEscapeUtils::QuickCompareString(first.c_str(), second.c_str(), 0) ==
            (!prefix.empty() && text.rfind(prefix, 0) == 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    const std::string key = input.Line();
    const std::string cmdline = input.Rest();
    CheckItem(cmdline, key);
    CheckIdentity(cmdline, VmEscapeUtils::GetVmNameFromCmdline(cmdline));
    CheckIdentity(cmdline, VmEscapeUtils::GetVmUUIDFromCmdline(cmdline));
    CheckPrefix(key, cmdline);
    return 0;
}
