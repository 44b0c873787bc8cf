#pragma once

#include "Options.h"
#include "Settings.h"

namespace Agent {

/// Reads the configuration, and over it what the command line says. What is wrong is on standard
/// error.
/// @return EXIT_GOOD; EXIT_BAD_INPUT for the file, EXIT_USAGE for the command line
int LoadSettings(const Options& options, Settings& settings);

}  // namespace Agent
