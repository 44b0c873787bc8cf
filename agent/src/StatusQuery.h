#pragma once

#include "Options.h"

#include <json/value.h>

#include <string>

namespace Agent {

/// Finds out where the running agent answers: as the command line says, or else the configuration.
/// @return EXIT_GOOD; EXIT_BAD_INPUT when the configuration is wrong, EXIT_FAILED when it lets the
///         agent answer nowhere (both said on standard error)
int FindStatusSocket(const Options& options, std::string& path);

/// Asks the agent that answers at a path.
/// @param answer    what it said
/// @param document  the same, read
/// @return what is wrong, or ""
std::string QueryStatus(const std::string& path, std::string& answer, Json::Value& document);

}  // namespace Agent
