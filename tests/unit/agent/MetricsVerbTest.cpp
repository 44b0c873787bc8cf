#include "MetricsVerb.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

Json::Value Status(const char* state) {
    Json::Value status;
    status["state"] = state;
    status["reasons"] = Json::arrayValue;
    if (state != std::string("up")) {
        status["reasons"].append("why");
    }
    return status;
}

class MetricsVerb : public testing::Test {
protected:
    int Export() {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = Agent::ExportMetrics(m_options);
        m_output = testing::internal::GetCapturedStdout();
        m_complaint = testing::internal::GetCapturedStderr();
        return code;
    }

    TestSupport::TemporaryFolder m_folder;
    Agent::Options m_options;
    std::string m_output;
    std::string m_complaint;
};

TEST(Health, KnowsUpFromDegradedAndDegradedFromDown) {
    const Agent::Health up = Agent::JudgeHealth(Status("up"), "");
    EXPECT_EQ(up.m_status, 200);
    EXPECT_EQ(up.m_text, R"({"reasons":[],"state":"up"})");
    const Agent::Health degraded = Agent::JudgeHealth(Status("degraded"), "");
    EXPECT_EQ(degraded.m_status, 429);
    EXPECT_EQ(degraded.m_text, R"({"reasons":["why"],"state":"degraded"})");
    const Agent::Health down = Agent::JudgeHealth(Json::Value(), "no agent answers");
    EXPECT_EQ(down.m_status, 503);
    EXPECT_EQ(down.m_text, R"({"reasons":["no agent answers"],"state":"down"})");
}

TEST_F(MetricsVerb, PrintsThatNoAgentAnswersAndEndsWithOne) {
    m_options.m_socket = m_folder / "none";
    EXPECT_EQ(Export(), Agent::EXIT_FAILED);
    EXPECT_NE(m_output.find("\nvmescape_up 0\n"), std::string::npos);
    EXPECT_NE(m_complaint.find("no agent answers at " + m_options.m_socket), std::string::npos);
}

TEST_F(MetricsVerb, ServesAtNoAddressThatOthersReach) {
    m_options.m_socket = m_folder / "none";
    for (const char* address : {"0.0.0.0:9464", "192.0.2.1:9464", "[::]:9464"}) {
        m_options.m_listen = address;
        EXPECT_EQ(Export(), Agent::EXIT_USAGE) << address;
        EXPECT_NE(m_complaint.find("expected a loopback address"), std::string::npos);
    }
}

TEST_F(MetricsVerb, SaysWhyItCannotServe) {
    m_options.m_socket = m_folder / "none";
    m_options.m_listen = "127.0.0.1:70000";
    EXPECT_EQ(Export(), Agent::EXIT_FAILED);
    EXPECT_NE(m_complaint.find("--listen 127.0.0.1:70000: "), std::string::npos) << m_complaint;
}

TEST_F(MetricsVerb, WantsTheWholePathOfALocalSocketBehindItsPrefix) {
    m_options.m_socket = m_folder / "none";
    for (const std::string& address :
         {std::string("unix:"), std::string("unix:metrics"), m_folder / "metrics"}) {
        m_options.m_listen = address;
        EXPECT_EQ(Export(), Agent::EXIT_USAGE) << address;
        EXPECT_NE(m_complaint.find("expected HOST:PORT or unix:/PATH, found " + address),
                  std::string::npos)
            << m_complaint;
    }
}

TEST_F(MetricsVerb, LeavesAFileWhereALocalSocketIsWanted) {
    m_options.m_socket = m_folder / "none";
    m_options.m_listen = "unix:" + m_folder.Write("file", "precious");
    EXPECT_EQ(Export(), Agent::EXIT_FAILED);
    EXPECT_NE(m_complaint.find(m_options.m_listen + ": Address already in use"), std::string::npos)
        << m_complaint;
    EXPECT_EQ(TestSupport::ReadText(m_folder / "file"), "precious");
}

TEST_F(MetricsVerb, EndsWithSixWhenTheConfigurationIsWrong) {
    m_options.m_config = m_folder.Write("agent.json", "[]");
    EXPECT_EQ(Export(), Agent::EXIT_BAD_INPUT);
}

}  // namespace
