// The Debian package, from its making to its removal.

#include "LiveTest.h"

#include <unistd.h>

namespace {

using TestSupport::ChildProcess;

class Package : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            ASSERT_EQ(std::getenv("CI"), nullptr) << "needs root";
            GTEST_SKIP() << "needs root";
        }
        const ChildProcess::Result made =
            ChildProcess::Run({SOURCE_FOLDER "/scripts/package.sh", BUILD_FOLDER});
        ASSERT_EQ(made.m_status, 0) << made.m_errors;
        m_package = made.m_output.substr(0, made.m_output.find('\n'));
    }

    std::string m_package;
};

TEST_F(Package, HasNothingThatTheDistributionsRulesForbid) {
    const ChildProcess::Result checked =
        ChildProcess::Run({"lintian", "--allow-root", "--pedantic", "--fail-on",
                           "error,warning,pedantic", m_package});
    EXPECT_EQ(checked.m_status, 0) << checked.m_output;
}

TEST_F(Package, IsInstalledUsedReplacedAndRemovedWithoutATrace) {
    const TestSupport::TemporaryFolder folder;
    const ChildProcess::Result life = ChildProcess::Run(
        {"unshare", "--mount", "--propagation", "private",
         SOURCE_FOLDER "/tests/support/programs/package_life.sh", m_package, folder.Path()},
        std::chrono::seconds(60));
    if (life.m_status == 77) {
        ASSERT_EQ(std::getenv("CI"), nullptr) << life.m_output;
        GTEST_SKIP() << "no overlays here";
    }
    EXPECT_EQ(life.m_status, 0) << life.m_output << life.m_errors;
}

}  // namespace
