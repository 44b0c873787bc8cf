// The agent as a service.

#include "LiveTest.h"

namespace {

using TestSupport::ChildProcess;

class Service : public LiveTest {
protected:
    void SetUp() override { Need(Agent::Missing()); }
};

TEST_F(Service, SeesAllClassesFromItsSandboxAndIsStartedAnewWhenItStandsStill) {
    const TestSupport::TemporaryFolder folder;
    const ChildProcess::Result life =
        ChildProcess::Run({SOURCE_FOLDER "/tests/support/programs/service_life.sh",
                           SOURCE_FOLDER "/packaging/vmescape-agent.service.in",
                           BUILD_FOLDER "/bin/vmescape-agent", folder.Path()},
                          std::chrono::seconds(150));
    if (life.m_status == 77) {
        ASSERT_EQ(std::getenv("CI"), nullptr) << life.m_output;
        GTEST_SKIP() << "no service manager here";
    }
    EXPECT_EQ(life.m_status, 0) << life.m_output << life.m_errors;
}

}  // namespace
