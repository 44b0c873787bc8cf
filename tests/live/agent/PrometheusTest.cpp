// What a Prometheus is given, judged by its own tool.

#include "LiveTest.h"
#include "support/ChildProcess.h"

namespace {

using TestSupport::ChildProcess;

class Prometheus : public LiveTest {
protected:
    void SetUp() override {
        LiveTest::SetUp();
        Need(ChildProcess::Run({"sh", "-c", "command -v promtool"}).m_status == 0
                 ? ""
                 : "promtool is missing");
    }
};

TEST_F(Prometheus, TakesTheAlertRules) {
    const ChildProcess::Result checked = ChildProcess::Run(
        {"promtool", "check", "rules", SOURCE_FOLDER "/packaging/prometheus-alerts.yml"});
    EXPECT_EQ(checked.m_status, 0) << checked.m_errors;
    EXPECT_NE(checked.m_output.find("SUCCESS: 15 rules found"), std::string::npos)
        << checked.m_output;
}

TEST_F(Prometheus, FindsNothingToBlameInTheMetrics) {
    const Agent agent(BUILD_FOLDER, DenyList());
    const ChildProcess::Result checked = ChildProcess::Run(
        {"bash", "-o", "pipefail", "-c", "\"$1\" metrics --socket \"$2\" | promtool check metrics",
         "bash", BUILD_FOLDER "/bin/vmescape-agent", agent.StatusSocket()});
    EXPECT_EQ(checked.m_status, 0) << checked.m_output << checked.m_errors;
    EXPECT_EQ(checked.m_errors, "");
}

}  // namespace
