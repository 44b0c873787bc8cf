#include "SchemaVerb.h"

#include "sdk/JsonUtils.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class SchemaVerb : public testing::Test {
protected:
    /// Runs the verb. @return what it prints
    std::string Print() {
        testing::internal::CaptureStdout();
        EXPECT_EQ(Agent::PrintSchema(m_options), Agent::EXIT_GOOD);
        return testing::internal::GetCapturedStdout();
    }
    Json::Value PrintJson() {
        const std::string text = Print();
        Json::Value document;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), document), 0) << text;
        return document;
    }

    Agent::Options m_options;
};

TEST_F(SchemaVerb, ListsTheNames) {
    EXPECT_EQ(Print(),
              "qemu_cmd_detect_feature\nqemu_file_detect_feature\nqemu_port_detect_feature\n"
              "agent\nalarm\n");
}

TEST_F(SchemaVerb, PrintsAllByNameAsJson) {
    m_options.m_json = true;
    const Json::Value all = PrintJson();
    EXPECT_EQ(all.size(), Agent::SchemaNames().size());
    for (const std::string& name : Agent::SchemaNames()) {
        EXPECT_EQ(all[name], Agent::SchemaOf(name));
    }
}

TEST_F(SchemaVerb, PrintsOneForPeopleOrOnOneLine) {
    m_options.m_schema = "agent";
    const std::string text = Print();
    EXPECT_NE(text.find("\n\t\"$id\""), std::string::npos) << text;
    EXPECT_EQ(PrintJson(), Agent::SchemaOf("agent"));
    m_options.m_json = true;
    EXPECT_EQ(Print().find('\n'), Print().length() - 1);
    EXPECT_EQ(PrintJson(), Agent::SchemaOf("agent"));
}

TEST_F(SchemaVerb, GivesEachAHeadAndItsOwnContent) {
    for (const std::string& name : Agent::SchemaNames()) {
        const Json::Value schema = Agent::SchemaOf(name);
        EXPECT_EQ(schema["$schema"].asString(), "https://json-schema.org/draft/2020-12/schema");
        EXPECT_EQ(schema["$id"].asString(), "urn:vmescape:schema:" + name);
        EXPECT_EQ(schema["title"].asString(), name);
    }
    EXPECT_TRUE(Agent::SchemaOf("agent")["properties"].isMember("policies"));
    EXPECT_TRUE(Agent::SchemaOf("alarm")["properties"].isMember("event_classid"));
    const Json::Value ports = Agent::SchemaOf("qemu_port_detect_feature");
    const Json::Value rules = ports["properties"]["content"]["properties"]["monitor_list"];
    EXPECT_TRUE(rules["items"]["properties"].isMember("portlist"));
}

}  // namespace
