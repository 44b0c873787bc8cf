#include "PolicySchema.h"

#include "DescribedKeys.h"
#include "sdk/JsonUtils.h"

#include <gtest/gtest.h>

// That it takes what the checker takes, and nothing else, a live test shows with a validator.

namespace {

Json::Value Of(const char* feature) {
    return Agent::PolicySchema::Of(*Agent::PolicyShape::Find(feature));
}

std::string Text(const Json::Value& value) { return SDK::JsonUtils::JsonToString(value); }

TEST(PolicySchema, DescribesEveryKeyOfEveryFeature) {
    for (const Agent::PolicyShape& shape : Agent::PolicyShape::All()) {
        const Json::Value schema = Agent::PolicySchema::Of(shape);
        EXPECT_NE(schema["description"].asString(), "");
        EXPECT_GE(CountDescribedKeys(schema), 8) << shape.m_feature;
    }
}

TEST(PolicySchema, HasTheKeysOfItsFeature) {
    const Json::Value commands = Of("qemu_cmd_detect_feature")["properties"]["content"];
    EXPECT_EQ(Text(commands["required"]), R"(["monitor_list"])");
    EXPECT_FALSE(commands["properties"].isMember("action"));
    const Json::Value rule = commands["properties"]["monitor_list"]["items"];
    EXPECT_EQ(Text(rule["required"]), R"(["virtcmd","cmdlist"])");
    EXPECT_EQ(rule["properties"]["action"]["type"].asString(), "boolean");
    EXPECT_EQ(rule["properties"]["virtcmd"]["minLength"].asInt(), 1);
    EXPECT_EQ(rule["properties"]["cmdlist"]["items"]["type"].asString(), "string");
    const Json::Value files = Of("qemu_file_detect_feature")["properties"]["content"];
    EXPECT_EQ(Text(files["required"]), R"(["senstive_dirs","monitor_list"])");
    EXPECT_EQ(files["properties"]["action"]["type"].asString(), "boolean");
    EXPECT_FALSE(files["properties"]["monitor_list"]["items"]["properties"].isMember("action"));
}

TEST(PolicySchema, NeedsAModuleContentAndARule) {
    const Json::Value schema = Of("qemu_port_detect_feature");
    EXPECT_EQ(Text(schema["required"]), R"(["module_name","content"])");
    EXPECT_EQ(schema["properties"]["module_name"]["const"].asString(), "vmescape_module");
    const Json::Value content = schema["properties"]["content"];
    EXPECT_EQ(content["properties"]["monitor_list"]["minItems"].asInt(), 1);
}

TEST(PolicySchema, LeavesToTheCheckerWhatIsOnlyAWarning) {
    const std::string text = Text(Of("qemu_cmd_detect_feature"));
    EXPECT_EQ(text.find("additionalProperties"), std::string::npos);
    EXPECT_EQ(text.find("maxItems"), std::string::npos);
    EXPECT_NE(text.find("Rules after the 50th are ignored."), std::string::npos);
    EXPECT_NE(text.find("Entries after the 100th are ignored."), std::string::npos);
}

}  // namespace
