// A policy text of any kind is taken or refused, and the rules that it leaves can be asked.

#include "FuzzInput.h"
#include "QemuCmdDetectPolicy.h"

namespace {

void CheckProgram(const Engine::QemuCmdDetectPolicy& policy, const std::string& text,
                  const std::string& program) {
    const bool monitored = policy.IsMonitorProcess(program);
    // A rule's program stands in the text, as it is or in escapes.
    Require(!monitored || text.find(program) != std::string::npos ||
            text.find('\\') != std::string::npos);
    Require(monitored || !policy.MatchMonitorRule(program, "sh", "sh -c id", "/usr/bin/sh"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = FuzzInput(data, size).Rest();
    Engine::QemuCmdDetectPolicy policy("qemu_cmd_detect_feature");
    policy.Parse(text);
    for (const char* program : {"kvm", "qemu-system-x86_64"}) {
        CheckProgram(policy, text, program);
    }
    Require(!policy.IsMonitorProcess(""));

    // A text without rules leaves those in force alone.
    const bool monitored = policy.IsMonitorProcess("kvm");
    Require(!policy.Parse("{}"));
    Require(policy.IsMonitorProcess("kvm") == monitored);
    return 0;
}
