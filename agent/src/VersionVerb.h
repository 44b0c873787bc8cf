#pragma once

#include "Options.h"

namespace Agent {

/// Prints the program's name and version: as a line, or as a document with "program" and "version".
/// @return EXIT_GOOD
int PrintVersion(const Options& options);

}  // namespace Agent
