#pragma once

#include <json/value.h>

#include <string>

namespace Agent {

/// An agent's status as metrics in Prometheus' text format (version 0.0.4).
/// @param status  the document that "status" prints; null when no agent answers
std::string ToMetrics(const Json::Value& status);

}  // namespace Agent
