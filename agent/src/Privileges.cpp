#include "Privileges.h"

#include <cap-ng.h>

namespace Agent {

namespace {

bool Has(unsigned int capability) {
    return capng_have_capability(CAPNG_EFFECTIVE, capability) == 1;
}

// capabilities(7): CAP_SYS_ADMIN contains both since it was split.
bool CanTrace() { return Has(CAP_SYS_ADMIN) || (Has(CAP_BPF) && Has(CAP_PERFMON)); }

/// Without the first, fanotify(7) tells of no other process; without the second, directories of
/// other users cannot be read, nor found again when they have moved.
void AddMissingForFiles(std::vector<std::string>& missing) {
    if (!Has(CAP_SYS_ADMIN)) {
        missing.emplace_back("CAP_SYS_ADMIN, to follow file accesses with fanotify");
    }
    if (!Has(CAP_DAC_READ_SEARCH)) {
        missing.emplace_back("CAP_DAC_READ_SEARCH, to watch directories of other users");
    }
}

}  // namespace

std::vector<std::string> Privileges::Missing(const std::string& source, bool files) {
    capng_get_caps_process();
    std::vector<std::string> missing;
    if (files) {
        AddMissingForFiles(missing);
    }
    const bool bpf = source != "connector" && CanTrace();
    const bool connector = source != "bpf" && Has(CAP_NET_ADMIN);
    if (!bpf && !connector) {
        if (source != "connector") {
            missing.emplace_back("CAP_BPF and CAP_PERFMON, to follow processes with BPF");
        }
        if (source != "bpf") {
            missing.emplace_back("CAP_NET_ADMIN, to follow processes with the process connector");
        }
    }
    if (!Has(CAP_SYS_PTRACE)) {
        missing.emplace_back("CAP_SYS_PTRACE, to see which program a process of another user runs");
    }
    return missing;
}

}  // namespace Agent
