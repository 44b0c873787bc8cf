#pragma once

#include "formats/HostIdentity.h"

#include <json/value.h>

namespace Engine {

/// Alarms as Detection Findings of the Open Cybersecurity Schema Framework. docs/alarms.md has the
/// table of the fields. Stateless: any thread may use it.
class OcsfMapping {
public:
    static constexpr const char* VERSION = "1.6.0";  ///< of the schema

    /// @param alarm  the document, or a text: what came instead of one
    /// @param host   the one that the alarm is from
    /// @return a finding with all that the document holds: what the schema has no place for stands
    ///         in "unmapped", and what is no document in "raw_data"
    static Json::Value Map(const Json::Value& alarm, const HostIdentity& host);
};

}  // namespace Engine
