// A file or port policy text of any kind is taken or refused, and what it leaves can be asked.

#include "FuzzInput.h"
#include "QemuFileDetectPolicy.h"
#include "QemuPortDetectPolicy.h"

namespace {

void CheckFilePolicy(const std::string& text) {
    Engine::QemuFileDetectPolicy policy("qemu_file_detect_feature");
    policy.Parse(text);
    std::set<std::string> dirs;
    policy.GetMonitorDirs(dirs);
    Require(dirs.size() <= 100);
    Require(policy.IsMonitorProcess("kvm") || !policy.MatchMonitorRule("kvm", "/etc/shadow"));
    Require(!policy.IsMonitorProcess(""));
}

void CheckPortPolicy(const std::string& text) {
    Engine::QemuPortDetectPolicy policy("qemu_port_detect_feature");
    policy.Parse(text);
    std::string port;
    const bool abnormal = policy.MatchMonitorRule("kvm", "22", "6", port) != 0;
    Require(abnormal == (port == "22"));
    Require(policy.IsMonitorProcess("kvm") || !abnormal);
    Require(!policy.IsMonitorProcess(""));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = FuzzInput(data, size).Rest();
    CheckFilePolicy(text);
    CheckPortPolicy(text);
    return 0;
}
