#include "ReplaySummary.h"

#include <gtest/gtest.h>

namespace {

using Kind = Agent::RecordedEvent::Kind;

Agent::RecordedEvent Event(Kind kind, std::int64_t seconds) {
    Agent::RecordedEvent event;
    event.m_kind = kind;
    event.m_at = (1763711564 + seconds) * 1000000;
    event.m_lost = kind == Kind::GAP ? 20 : 0;
    return event;
}

class ReplaySummary : public testing::Test {
protected:
    ReplaySummary() {
        m_summary.m_header.m_host = "kvm\x1b-07";
        for (const auto& event :
             {Event(Kind::SNAPSHOT, 0), Event(Kind::EXEC, 5), Event(Kind::EXEC, 6),
              Event(Kind::GAP, 7), Event(Kind::GAP, 8), Event(Kind::END, 3600)}) {
            m_summary.Count(event);
        }
        m_summary.m_alarms = {{"vmescape_0001", 2}, {"vmescape_0002", 0}};
        m_summary.m_warnings = {"a\nb"};
    }

    Replay::ReplaySummary m_summary;
};

TEST_F(ReplaySummary, IsTextForPeople) {
    EXPECT_EQ(m_summary.ToText(),
              "replayed 3600 seconds of kvm\\x1b-07, from 2025-11-21T07:52:44Z to "
              "2025-11-21T08:52:44Z\n"
              "  events: exec 2, snapshot 1\n"
              "  alarms: vmescape_0001 2, vmescape_0002 0\n"
              "  gaps:   2, 40 events are missing\n"
              "  warning: a\\nb\n");
}

TEST_F(ReplaySummary, IsJsonForPrograms) {
    m_summary.m_whole = true;
    m_summary.m_lostAlarms = 3;
    const Json::Value json = m_summary.ToJson();
    EXPECT_EQ(json["host"], "kvm\x1b-07");
    EXPECT_EQ(json["from"], "2025-11-21T07:52:44Z");
    EXPECT_EQ(json["to"], "2025-11-21T08:52:44Z");
    EXPECT_EQ(json["seconds"], 3600);
    EXPECT_EQ(json["events"]["exec"].asInt(), 2);
    EXPECT_EQ(json["alarms"]["vmescape_0001"].asInt(), 2);
    EXPECT_EQ(json["gaps"]["count"].asInt(), 2);
    EXPECT_EQ(json["gaps"]["missing"].asInt(), 40);
    EXPECT_EQ(json["lost_alarms"].asInt(), 3);
    EXPECT_EQ(json["warnings"][0], "a\nb");
    EXPECT_TRUE(json["whole"].asBool());
}

}  // namespace
