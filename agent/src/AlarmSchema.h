#pragma once

#include <json/value.h>

namespace Agent {

/// Says in JSON Schema what an alarm looks like, of whichever class. It is written by hand beside
/// what the detections write, and a live test holds the two together.
///
/// Keys that are not named are allowed: a later version may tell more.
class AlarmSchema {
public:
    /// The schema of all alarms, without its head ("$schema", "$id").
    static Json::Value Of();
};

}  // namespace Agent
