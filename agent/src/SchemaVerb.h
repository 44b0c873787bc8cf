#pragma once

#include "Options.h"

#include <json/value.h>

#include <string>
#include <vector>

namespace Agent {

/// What there are schemas of: each feature's policy, the agent's configuration, and alarms.
std::vector<std::string> SchemaNames();

/// A whole schema (JSON Schema, draft 2020-12). @param name  one of SchemaNames
Json::Value SchemaOf(const std::string& name);

/// Prints the schema of this name; without a name the names, or with JSON all schemas by name.
/// @return EXIT_GOOD
int PrintSchema(const Options& options);

}  // namespace Agent
