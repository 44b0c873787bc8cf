#include "VersionVerb.h"

#include "sdk/JsonUtils.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Printed(bool json) {
    Agent::Options options;
    options.m_json = json;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Agent::PrintVersion(options), Agent::EXIT_GOOD);
    return testing::internal::GetCapturedStdout();
}

TEST(VersionVerb, PrintsALine) {
    EXPECT_EQ(Printed(false), std::string("vmescape-agent ") + VMESCAPE_VERSION + '\n');
}

TEST(VersionVerb, PrintsADocumentWhenAskedTo) {
    const std::string text = Printed(true);
    Json::Value document;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), document), 0) << text;
    EXPECT_EQ(document["program"].asString(), "vmescape-agent");
    EXPECT_EQ(document["version"].asString(), VMESCAPE_VERSION);
}

}  // namespace
