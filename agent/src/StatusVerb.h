#pragma once

#include "Options.h"

namespace Agent {

/// Asks the running agent for its status and prints it.
/// @return EXIT_GOOD when it is up; EXIT_FAILED when it is degraded or does not answer;
///         EXIT_BAD_INPUT when the configuration that tells where it answers is wrong
int PrintStatus(const Options& options);

}  // namespace Agent
