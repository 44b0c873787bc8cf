#pragma once

#include "RecordedEvent.h"

#include <json/value.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Replay {

/// What a replay came to, for who started it.
struct ReplaySummary {
    Agent::RecordingHeader m_header;
    std::map<std::string, std::uint64_t> m_events;  ///< by kind
    std::int64_t m_firstUs = 0;                     ///< of the recording, since the epoch
    std::int64_t m_lastUs = 0;
    std::uint64_t m_gaps = 0;
    std::uint64_t m_missing = 0;                    ///< events, in all gaps
    std::map<std::string, std::uint64_t> m_alarms;  ///< by class
    std::uint64_t m_lostAlarms = 0;                 ///< that no output took
    bool m_whole = false;                           ///< the recording was replayed to its end
    std::vector<std::string> m_warnings;

    /// Takes an event into the count.
    void Count(const Agent::RecordedEvent& event);

    /// As lines for people. Safe for a terminal.
    std::string ToText() const;
    Json::Value ToJson() const;
};

}  // namespace Replay
