#pragma once

#include "PolicyShape.h"

#include <json/value.h>

namespace Agent {

/// Says in JSON Schema which policies the checker finds good. It is made from the table that the
/// checker walks along, so the two cannot drift apart. What the checker only warns of is allowed:
/// unknown keys, more entries than count, entries that never match.
class PolicySchema {
public:
    /// The schema of the policies of a feature, without its head ("$schema", "$id").
    static Json::Value Of(const PolicyShape& shape);
};

}  // namespace Agent
