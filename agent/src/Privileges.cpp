#include "Privileges.h"

#include <Poco/Error.h>

#include <cap-ng.h>
#include <sys/prctl.h>

#include <cerrno>

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

/// What the collectors need while they run, beside what they need to start.
std::vector<unsigned int> Needed(const std::string& source) {
    std::vector<unsigned int> needed = {
        CAP_SYS_ADMIN,        // fanotify groups; a look into other network namespaces
        CAP_SYS_PTRACE,       // programs, descriptors and namespaces of others in /proc
        CAP_DAC_READ_SEARCH,  // folders of others that are watched
        CAP_BPF,              // maps and programs
        CAP_PERFMON,          // tracepoints and iterators
    };
    if (source != "bpf") {
        needed.push_back(CAP_NET_ADMIN);  // the process connector
    }
    return needed;
}

constexpr auto kEffectiveAndPermitted =
    static_cast<capng_type_t>(unsigned{CAPNG_EFFECTIVE} | unsigned{CAPNG_PERMITTED});

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

std::string Privileges::KeepNeeded(const std::string& source) {
    capng_get_caps_process();
    std::vector<unsigned int> kept = Needed(source);
    std::erase_if(kept, [](unsigned int capability) { return !Has(capability); });
    return Keep(kept);
}

std::string Privileges::KeepNone() {
    capng_get_caps_process();
    return Keep({});
}

std::string Privileges::Keep(const std::vector<unsigned int>& capabilities) {
    // Who may not change the bounding set has no way to win from it either: see below.
    const auto sets = Has(CAP_SETPCAP) ? CAPNG_SELECT_ALL : CAPNG_SELECT_CAPS;
    capng_clear(sets);
    for (const unsigned int capability : capabilities) {
        capng_update(CAPNG_ADD, kEffectiveAndPermitted, capability);
    }
    if (const int error = capng_apply(sets); error != 0) {
        return "capabilities cannot be given up (libcap-ng: " + std::to_string(error) + ")";
    }
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return "new privileges cannot be renounced: " + Poco::Error::getMessage(errno);
    }
    return "";
}

}  // namespace Agent
