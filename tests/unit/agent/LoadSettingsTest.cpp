#include "LoadSettings.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

class LoadSettings : public testing::Test {
protected:
    /// @return the exit code
    int Load(const std::string& config) {
        m_options.m_config = m_folder.Write("agent.json", config);
        testing::internal::CaptureStderr();
        const int code = Agent::LoadSettings(m_options, m_settings);
        m_errors = testing::internal::GetCapturedStderr();
        return code;
    }

    TestSupport::TemporaryFolder m_folder;
    Agent::Options m_options;
    Agent::Settings m_settings;
    std::string m_errors;
};

TEST_F(LoadSettings, PutsTheCommandLineAboveTheFile) {
    m_options.m_settings = {{"policies", "p"}};
    EXPECT_EQ(Load(R"({"policies":"q","modules":"m"})"), Agent::EXIT_GOOD);
    EXPECT_EQ(m_settings.Get("policies"), "p");
    EXPECT_EQ(m_settings.Get("modules"), "m");
    EXPECT_EQ(m_errors, "");
}

TEST_F(LoadSettings, ToleratesUnknownKeysOfTheFile) {
    EXPECT_EQ(Load(R"({"strange":1})"), Agent::EXIT_GOOD);
    EXPECT_NE(m_errors.find("vmescape-agent: "), std::string::npos);
}

TEST_F(LoadSettings, TellsAWrongFileFromAWrongCommandLine) {
    EXPECT_EQ(Load(R"({"cpu_share":"x"})"), Agent::EXIT_BAD_INPUT);
    EXPECT_NE(m_errors.find("/cpu_share"), std::string::npos);
    m_options.m_settings = {{"strange", "1"}};
    EXPECT_EQ(Load("{}"), Agent::EXIT_USAGE);
    EXPECT_EQ(m_errors, "vmescape-agent: unknown key \"strange\"\n");
}

}  // namespace
