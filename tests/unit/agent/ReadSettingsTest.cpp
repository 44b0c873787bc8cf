#include "ReadSettings.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

class ReadSettings : public testing::Test {
protected:
    /// @return an exit code
    int Read() {
        testing::internal::CaptureStderr();
        const int code = Agent::ReadSettings(m_options, m_settings);
        m_errors = testing::internal::GetCapturedStderr();
        return code;
    }

    TestSupport::TemporaryFolder m_folder;
    Agent::Options m_options;
    Agent::Settings m_settings;
    std::string m_errors;
};

TEST_F(ReadSettings, PutsTheCommandLineAboveTheFile) {
    m_options.m_config = m_folder.Write("c", R"({"cpu_share": 5, "log_level": "error"})");
    m_options.m_settings = {{"cpu_share", "7"}};
    EXPECT_EQ(Read(), Agent::EXIT_GOOD);
    EXPECT_EQ(m_settings.GetInt("cpu_share"), 7);
    EXPECT_EQ(m_settings.Get("log_level"), "error");
    EXPECT_EQ(m_errors, "");
}

TEST_F(ReadSettings, TellsABadFileFromABadCommandLine) {
    m_options.m_config = m_folder.Write("c", R"({"cpu_share": 500})");
    EXPECT_EQ(Read(), Agent::EXIT_BAD_INPUT);
    EXPECT_NE(m_errors.find("/cpu_share: expected"), std::string::npos) << m_errors;
    m_options.m_config = m_folder.Write("c", R"({"unknown": 1})");
    EXPECT_EQ(Read(), Agent::EXIT_GOOD) << "that is a warning";
    EXPECT_NE(m_errors.find("warning: unknown key"), std::string::npos) << m_errors;
    m_options.m_settings = {{"cpu_share", "x"}};
    EXPECT_EQ(Read(), Agent::EXIT_USAGE);
}

}  // namespace
