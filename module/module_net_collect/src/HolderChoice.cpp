#include "HolderChoice.h"

#include "BpfHolderSource.h"
#include "NetCollectLog.h"
#include "ProcHolderSource.h"

namespace NetCollect {

std::unique_ptr<HolderSource> StartHolderSource(const std::string& choice) {
    if (choice != "auto" && choice != "bpf" && choice != "proc") {
        SDK::LogError(Logger(),
                      "Configuration net_collect.holders is %s, expected auto, bpf or proc.",
                      choice);
        return nullptr;
    }
    if (choice != "proc") {
        auto source = std::make_unique<BpfHolderSource>();
        if (source->Start()) {
            return source;
        }
    }
    if (choice == "bpf") {
        SDK::LogError(Logger(),
                      "Source(bpf) of socket holders does not work. Needed: CAP_BPF and "
                      "CAP_PERFMON, or CAP_SYS_ADMIN.");
        return nullptr;
    }
    return std::make_unique<ProcHolderSource>();
}

}  // namespace NetCollect
