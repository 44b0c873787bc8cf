// What somebody does who has a fresh Debian and the package.

#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

using TestSupport::ChildProcess;

/// What a document tells its reader to type.
std::vector<std::string> CommandsOf(const std::string& document) {
    const std::string prompt = "    $ ";
    std::vector<std::string> commands;
    std::istringstream lines(TestSupport::ReadText(document));
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(prompt, 0) == 0) {
            commands.push_back(line.substr(prompt.size()));
        }
    }
    return commands;
}

TEST(Newcomer, GetsFromAnEmptyDebianToAlarmsAndBackAsTheQuickStartTells) {
    const ChildProcess::Result made =
        ChildProcess::Run({SOURCE_FOLDER "/scripts/package.sh", BUILD_FOLDER});
    ASSERT_EQ(made.m_status, 0) << made.m_errors;
    const std::string package = made.m_output.substr(0, made.m_output.find('\n'));
    const TestSupport::TemporaryFolder folder;
    const ChildProcess::Result run = ChildProcess::Run(
        {SOURCE_FOLDER "/tests/support/programs/newcomer.sh", package, BUILD_FOLDER "/newcomer",
         folder.Path(), BUILD_FOLDER "/bin/kafka_cluster"},
        std::chrono::seconds(840));
    if (run.m_status == 77) {
        ASSERT_EQ(std::getenv("CI"), nullptr) << run.m_output;
        GTEST_SKIP() << run.m_output;
    }
    EXPECT_EQ(run.m_status, 0) << run.m_output << run.m_errors;

    const std::vector<std::string> commands = CommandsOf(SOURCE_FOLDER "/docs/quickstart.md");
    EXPECT_GE(commands.size(), 10U);
    for (const std::string& command : commands) {
        EXPECT_NE(run.m_output.find("\n$ " + command + '\n'), std::string::npos)
            << "nobody tried: " << command;
    }
}

}  // namespace
