#pragma once

#include "ProcessSource.h"

#include <cstddef>
#include <memory>
#include <string>

namespace ProcessCollect {

/// Starts the source that the configuration asks for.
/// @param choice     "bpf", "connector", or "auto": the first of these two that works
/// @param ringBytes  size of the eBPF ring buffer
/// @return the started source; null when none works or the choice is unknown (logged as one error)
std::unique_ptr<ProcessSource> StartSource(const std::string& choice, std::size_t ringBytes);

}  // namespace ProcessCollect
