#pragma once

#include "Options.h"

#include <json/value.h>

#include <string>

namespace Agent {

/// What a running agent may be asked for.
inline constexpr const char* STATUS_REQUEST = "status";
inline constexpr const char* LIST_REQUEST = "list";

/// Finds out where the running agent answers: as the command line says, or else the configuration.
/// @return EXIT_GOOD; EXIT_BAD_INPUT when the configuration is wrong, EXIT_FAILED when it lets the
///         agent answer nowhere (both said on standard error)
int FindStatusSocket(const Options& options, std::string& path);

/// Asks the agent that answers at a path.
/// @param answer    what it said
/// @param document  the same, read
/// @return what is wrong, or "". Safe for a terminal
std::string QueryAgent(const std::string& path, const std::string& request, std::string& answer,
                       Json::Value& document);

/// The same for its status.
std::string QueryStatus(const std::string& path, std::string& answer, Json::Value& document);

}  // namespace Agent
