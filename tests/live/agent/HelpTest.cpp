// What every verb of the program itself says, as who types it sees it.

#include "support/ChildProcess.h"

#include <gtest/gtest.h>

#include <json/json.h>

#include <sstream>

namespace {

using TestSupport::ChildProcess;

const char* const kAgent = BUILD_FOLDER "/bin/vmescape-agent";

class Help : public testing::TestWithParam<const char*> {};

TEST_P(Help, TellsHowItIsUsedAndEndsWithZero) {
    const std::string verb = GetParam();
    const ChildProcess::Result result = ChildProcess::Run({kAgent, verb, "--help"});
    EXPECT_EQ(result.m_status, 0);
    EXPECT_EQ(result.m_errors, "");
    EXPECT_NE(result.m_output.find("Usage: vmescape-agent " + verb), std::string::npos)
        << result.m_output;
    EXPECT_NE(ChildProcess::Run({kAgent, "--help"}).m_output.find("\n  " + verb + ' '),
              std::string::npos)
        << "the program's own help lists it";
}

TEST_P(Help, IsPointedToByAUsageErrorThatEndsWithTwo) {
    const ChildProcess::Result result = ChildProcess::Run({kAgent, GetParam(), "--no-such-option"});
    EXPECT_EQ(result.m_status, 2);
    EXPECT_EQ(result.m_output, "");
    EXPECT_NE(result.m_errors.find("--help"), std::string::npos) << result.m_errors;
}

INSTANTIATE_TEST_SUITE_P(Verbs, Help,
                         testing::Values("run", "check", "status", "list", "metrics", "schema",
                                         "selftest", "learn", "replay", "version"),
                         [](const auto& test) { return std::string(test.param); });

TEST(Version, IsPrintedAsALineAndAsADocument) {
    Json::Value document;
    std::istringstream(ChildProcess::Run({kAgent, "version", "--json"}).m_output) >> document;
    const std::string version = document["version"].asString();
    EXPECT_FALSE(version.empty());
    for (const char* way : {"version", "--version"}) {
        EXPECT_EQ(ChildProcess::Run({kAgent, way}).m_output, "vmescape-agent " + version + '\n');
    }
}

}  // namespace
