#pragma once

#include "Options.h"

namespace Agent {

/// Tells what is wrong with policy files: problems on standard error and good files on standard
/// output, or all of it as one JSON document on standard output.
/// @return EXIT_GOOD when all could be used, with warnings or without; EXIT_BAD_INPUT otherwise
int CheckFiles(const Options& options);

}  // namespace Agent
