#include "SourceChoice.h"

#include "BpfProcessSource.h"
#include "ConnectorProcessSource.h"
#include "ProcessCollectLog.h"

namespace ProcessCollect {

std::unique_ptr<ProcessSource> StartSource(const std::string& choice, std::size_t ringBytes) {
    const bool any = choice == "auto";
    if (!any && choice != "bpf" && choice != "connector") {
        SDK::LogError(
            Logger(),
            "Configuration process_collect.source is %s, expected auto, bpf or connector.", choice);
        return nullptr;
    }
    std::unique_ptr<ProcessSource> source;
    if (any || choice == "bpf") {
        source = std::make_unique<BpfProcessSource>(ringBytes);
        if (source->Start()) {
            return source;
        }
    }
    if (any || choice == "connector") {
        source = std::make_unique<ConnectorProcessSource>();
        if (source->Start()) {
            return source;
        }
    }
    SDK::LogError(Logger(),
                  "No source(%s) of process events works. Needed: CAP_BPF and CAP_PERFMON for bpf, "
                  "CAP_NET_ADMIN for the connector, CAP_SYS_PTRACE for both; root has them all.",
                  choice);
    return nullptr;
}

}  // namespace ProcessCollect
