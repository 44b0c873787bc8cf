#include "ReplaySummary.h"

#include "RecordingText.h"
#include "sdk/StrUtils.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Timestamp.h>

namespace Replay {

namespace {

using Counts = std::map<std::string, std::uint64_t>;

constexpr std::int64_t kUsPerS = 1000000;

std::string Time(std::int64_t us) {
    return Poco::DateTimeFormatter::format(Poco::Timestamp(us), "%Y-%m-%dT%H:%M:%SZ");
}

/// "exec 3, exit 2"
std::string ToText(const Counts& counts) {
    std::string text;
    for (const auto& [name, count] : counts) {
        text += (text.empty() ? "" : ", ") + name + ' ' + std::to_string(count);
    }
    return text.empty() ? "none" : text;
}

Json::Value ToJson(const Counts& counts) {
    Json::Value object = Json::objectValue;
    for (const auto& [name, count] : counts) {
        object[name] = Json::UInt64{count};
    }
    return object;
}

}  // namespace

void ReplaySummary::Count(const Agent::RecordedEvent& event) {
    using Kind = Agent::RecordedEvent::Kind;
    m_firstUs = m_firstUs == 0 ? event.m_at : m_firstUs;
    m_lastUs = event.m_at;
    if (event.m_kind == Kind::GAP) {
        ++m_gaps;
        m_missing += event.m_lost;
    }
    if (event.m_kind != Kind::END && event.m_kind != Kind::GAP) {
        ++m_events[Agent::RecordingText::Name(event.m_kind)];
    }
}

std::string ReplaySummary::ToText() const {
    std::string text = "replayed " + std::to_string((m_lastUs - m_firstUs) / kUsPerS) +
                       " seconds of " + SDK::StrUtils::EscapeForTerminal(m_header.m_host) +
                       ", from " + Time(m_firstUs) + " to " + Time(m_lastUs) + '\n';
    text += "  events: " + Replay::ToText(m_events) + '\n';
    text += "  alarms: " + Replay::ToText(m_alarms) + '\n';
    text += "  gaps:   " + std::to_string(m_gaps);
    text += m_gaps == 0 ? "\n" : ", " + std::to_string(m_missing) + " events are missing\n";
    for (const std::string& warning : m_warnings) {
        text += "  warning: " + SDK::StrUtils::EscapeForTerminal(warning) + '\n';
    }
    return text;
}

Json::Value ReplaySummary::ToJson() const {
    Json::Value object;
    object["host"] = m_header.m_host;
    object["agent"] = m_header.m_agent;
    object["from"] = Time(m_firstUs);
    object["to"] = Time(m_lastUs);
    object["seconds"] = Json::Int64{(m_lastUs - m_firstUs) / kUsPerS};
    object["events"] = Replay::ToJson(m_events);
    object["alarms"] = Replay::ToJson(m_alarms);
    object["lost_alarms"] = Json::UInt64{m_lostAlarms};
    object["gaps"]["count"] = Json::UInt64{m_gaps};
    object["gaps"]["missing"] = Json::UInt64{m_missing};
    object["whole"] = m_whole;
    object["warnings"] = Json::arrayValue;
    for (const std::string& warning : m_warnings) {
        object["warnings"].append(warning);
    }
    return object;
}

}  // namespace Replay
