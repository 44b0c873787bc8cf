// What the checker lets pass, the module takes; and whatever it says can be shown on a terminal.

#include "FuzzInput.h"
#include "PolicyChecker.h"
#include "QemuCmdDetectPolicy.h"
#include "QemuFileDetectPolicy.h"
#include "QemuPortDetectPolicy.h"

#include <algorithm>

namespace {

template <typename PolicyT>
void CheckAs(const std::string& feature, const std::string& text) {
    const std::vector<Agent::Problem> problems =
        Agent::PolicyChecker::Check(feature + ".json", text);
    for (const Agent::Problem& problem : problems) {
        const std::string line = Agent::ToText(problem);
        Require(std::none_of(line.begin(), line.end(), [](char character) {
            return static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
        }));
    }
    if (!Agent::HasErrors(problems)) {
        Require(PolicyT(feature).Parse(text));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = FuzzInput(data, size).Rest();
    CheckAs<Engine::QemuCmdDetectPolicy>("qemu_cmd_detect_feature", text);
    CheckAs<Engine::QemuFileDetectPolicy>("qemu_file_detect_feature", text);
    CheckAs<Engine::QemuPortDetectPolicy>("qemu_port_detect_feature", text);
    return 0;
}
