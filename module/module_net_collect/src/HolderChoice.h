#pragma once

#include "HolderSource.h"

#include <memory>
#include <string>

namespace NetCollect {

/// Starts the source of holders that the configuration names: "bpf", "proc", or "auto" for the
/// first of them that works. @return null, and says why, when none does
std::unique_ptr<HolderSource> StartHolderSource(const std::string& choice);

}  // namespace NetCollect
