#pragma once

#include "formats/HostIdentity.h"

#include <json/value.h>

namespace Engine {

/// Alarms as events of the Elastic Common Schema. docs/alarms.md has the table of the fields.
/// Stateless: any thread may use it.
class EcsMapping {
public:
    static constexpr const char* VERSION = "8.11.0";  ///< of the schema

    /// @param alarm  the document, or a text: what came instead of one
    /// @param host   the one that the alarm is from
    /// @return an event with all that the document holds: what the schema has no place for stands
    ///         below "vmescape", and what is no document in "event.original"
    static Json::Value Map(const Json::Value& alarm, const HostIdentity& host);
};

}  // namespace Engine
