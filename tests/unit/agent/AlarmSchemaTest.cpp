#include "AlarmSchema.h"

#include "DescribedKeys.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

// That real alarms are as it says, a live test shows with a validator.

namespace {

/// What the schema says of one class besides what all have.
Json::Value BranchOf(const std::string& id) {
    const Json::Value schema = Agent::AlarmSchema::Of();
    for (const Json::Value& branch : schema["allOf"]) {
        if (branch["if"]["properties"]["event_classid"]["const"] == id) {
            return branch["then"]["properties"];
        }
    }
    return {};
}

TEST(AlarmSchema, DescribesEveryKey) {
    EXPECT_GE(CountDescribedKeys(Agent::AlarmSchema::Of()), 30);
}

TEST(AlarmSchema, TellsEachClassApart) {
    const Json::Value commands = BranchOf("vmescape_0001");
    EXPECT_TRUE(commands["forensic_info"]["properties"].isMember("escape_mode"));
    EXPECT_TRUE(commands["process_info"]["items"]["properties"].isMember("parent_process_pid"));
    const Json::Value files = BranchOf("vmescape_0002");
    EXPECT_TRUE(files["file_info"]["items"]["properties"].isMember("file_action"));
    EXPECT_FALSE(files["process_info"]["items"]["properties"].isMember("process_cmdline"));
    const Json::Value ports = BranchOf("vmescape_0003");
    EXPECT_TRUE(ports["forensic_info"]["properties"].isMember("abnormal_port"));
    EXPECT_FALSE(ports.isMember("file_info"));
    EXPECT_TRUE(BranchOf("vmescape_0004").isNull());
}

TEST(AlarmSchema, NeedsWhatAllAlarmsHave) {
    std::set<std::string> needed;
    const Json::Value schema = Agent::AlarmSchema::Of();
    for (const Json::Value& key : schema["required"]) {
        needed.insert(key.asString());
    }
    EXPECT_EQ(needed, (std::set<std::string>{"attack_phase", "attack_tag", "confidence",
                                             "detect_module", "event_category", "event_classid",
                                             "event_count", "event_id", "event_name", "event_type",
                                             "occur_time", "resource_info", "severity"}));
}

}  // namespace
