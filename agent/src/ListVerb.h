#pragma once

#include "Options.h"

namespace Agent {

/// Asks the running agent what it watches and prints it: the policies in force, and the virtual
/// machines.
/// @return EXIT_GOOD; EXIT_FAILED when no agent answers; EXIT_BAD_INPUT when the configuration that
///         tells where it answers is wrong
int PrintList(const Options& options);

}  // namespace Agent
