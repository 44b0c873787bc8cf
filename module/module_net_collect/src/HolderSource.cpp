#include "HolderSource.h"

#include <algorithm>

namespace NetCollect {

void SortHolders(Holders& holders) {
    for (auto& [inode, pids] : holders) {
        std::sort(pids.begin(), pids.end());
        pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    }
}

}  // namespace NetCollect
