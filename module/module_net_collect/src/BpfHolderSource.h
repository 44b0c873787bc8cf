#pragma once

#include "HolderSource.h"
#include "sdk/UniqueDescriptor.h"

#include <memory>

struct SocketHolders;
struct bpf_link;

namespace NetCollect {

/// Lets a BPF program go through all open files inside the kernel.
class BpfHolderSource : public HolderSource {
public:
    BpfHolderSource();
    ~BpfHolderSource() override;

    std::string Name() const override { return "bpf"; }
    bool Start() override;
    bool Read(const SocketSet& sockets, Holders& holders) override;

private:
    struct SkeletonCloser {
        void operator()(SocketHolders* skeleton) const;
    };

    bool Load();

    /// One pass. @return 0; E2BIG when a process has too many for the program; or another error
    static int Run(bpf_link* program, const SocketSet& sockets, Holders& holders);

    std::unique_ptr<SocketHolders, SkeletonCloser> m_skeleton;
};

}  // namespace NetCollect
