#include "CheckVerb.h"

#include "sdk/JsonUtils.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <sys/stat.h>

namespace {

class CheckVerb : public testing::Test {
protected:
    int Check() {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = Agent::CheckFiles(m_options);
        m_output = testing::internal::GetCapturedStdout();
        m_complaint = testing::internal::GetCapturedStderr();
        return code;
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_good = SOURCE_FOLDER "/policies/qemu_port_detect_feature.json";
    const std::string m_bad = m_folder.Write("qemu_cmd_detect_feature.json", "{}");
    Agent::Options m_options;
    std::string m_output;
    std::string m_complaint;
};

TEST_F(CheckVerb, NamesGoodFilesOnStandardOutputAndProblemsOnStandardError) {
    m_options.m_files = {m_good, m_bad};
    EXPECT_EQ(Check(), Agent::EXIT_BAD_INPUT);
    EXPECT_EQ(m_output, m_good + ": good\n");
    EXPECT_NE(m_complaint.find(m_bad + ": "), std::string::npos);
    m_options.m_files = {m_good};
    EXPECT_EQ(Check(), Agent::EXIT_GOOD);
}

TEST_F(CheckVerb, ShowsNothingOfANameUnescaped) {
    ASSERT_EQ(::mkdir((m_folder / "a\x1b[31m").c_str(), 0700), 0);
    m_options.m_files = {
        m_folder.Write("a\x1b[31m/qemu_port_detect_feature.json", TestSupport::ReadText(m_good))};
    EXPECT_EQ(Check(), Agent::EXIT_GOOD);
    EXPECT_NE(m_output.find("/a\\x1b[31m/qemu_port_detect_feature.json: good\n"), std::string::npos)
        << m_output;
}

TEST_F(CheckVerb, PrintsAllOfItAsOneDocumentWhenAskedTo) {
    m_options.m_json = true;
    m_options.m_files = {m_good, m_bad};
    EXPECT_EQ(Check(), Agent::EXIT_BAD_INPUT);
    EXPECT_EQ(m_complaint, "");
    Json::Value document;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(m_output.c_str(), m_output.length(), document), 0);
    EXPECT_FALSE(document["good"].asBool());
    EXPECT_TRUE(document["files"][0]["good"].asBool());
    EXPECT_TRUE(document["files"][0]["problems"].empty());
    EXPECT_EQ(document["files"][1]["file"].asString(), m_bad);
    EXPECT_FALSE(document["files"][1]["good"].asBool());
    const Json::Value& problem = document["files"][1]["problems"][0];
    EXPECT_EQ(problem["place"].asString(), "/module_name");
    EXPECT_FALSE(problem["warning"].asBool());
    EXPECT_NE(problem["text"].asString(), "");
}

}  // namespace
