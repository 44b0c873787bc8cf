#pragma once

#include "Options.h"
#include "Settings.h"

namespace Agent {

/// Reads the configuration that the command line names, and what it sets over it. What is wrong is
/// said on standard error.
/// @return EXIT_GOOD, EXIT_BAD_INPUT or EXIT_USAGE
int ReadSettings(const Options& options, Settings& settings);

}  // namespace Agent
