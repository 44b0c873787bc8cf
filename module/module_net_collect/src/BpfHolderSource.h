#pragma once

#include "HolderSource.h"
#include "sdk/UniqueDescriptor.h"

#include <memory>

struct SocketHolders;

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

    std::unique_ptr<SocketHolders, SkeletonCloser> m_skeleton;
};

}  // namespace NetCollect
