// The agent shows its operator that detection works.

#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/WaitUntil.h"

#include <signal.h>

#include <filesystem>

namespace {

using TestSupport::ChildProcess;

const std::string kAgent = BUILD_FOLDER "/bin/vmescape-agent";

class Selftest : public LiveTest {
protected:
    void SetUp() override { Need(Agent::Missing()); }
};

TEST_F(Selftest, ShowsTheAlarmOfEachClassAndHowLongItTook) {
    const ChildProcess::Result result = ChildProcess::Run({kAgent, "selftest", "--json"});
    EXPECT_EQ(result.m_status, 0) << result.m_output << result.m_errors;
    Json::Value document;
    ASSERT_EQ(
        SDK::JsonUtils::ParseJsonStr(result.m_output.c_str(), result.m_output.length(), document),
        0);
    EXPECT_TRUE(document["good"].asBool());
    const Json::Value& alarms = document["alarms"];
    EXPECT_EQ(alarms.size(), 3U);
    for (const char* name : {"command", "file", "port"}) {
        EXPECT_TRUE(alarms[name]["seen"].asBool()) << name;
        EXPECT_GT(alarms[name]["milliseconds"].asDouble(), 0) << name;
    }
    EXPECT_EQ(alarms["command"]["event_classid"].asString(), "vmescape_0001");
    EXPECT_EQ(alarms["file"]["event_classid"].asString(), "vmescape_0002");
    EXPECT_EQ(alarms["port"]["event_classid"].asString(), "vmescape_0003");
}

TEST_F(Selftest, LeavesNothingBehindWhenItIsInterrupted) {
    const auto folders = [] {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
            count += entry.path().filename().string().rfind("vmescape-selftest-", 0) == 0 ? 1 : 0;
        }
        return count;
    };
    const std::size_t before = folders();
    ChildProcess selftest({kAgent, "selftest"});
    // The port is looked at every ten seconds: there is time.
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return folders() == before + 1; }));
    selftest.Signal(SIGTERM);
    EXPECT_EQ(selftest.Wait(), 1);
    EXPECT_EQ(folders(), before);
    EXPECT_NE(selftest.Errors().find("selftest: "), std::string::npos) << selftest.Errors();
}

TEST_F(Selftest, WorksWithoutAStandardInput) {
    const ChildProcess::Result result =
        ChildProcess::Run({"/bin/sh", "-c", kAgent + " selftest <&-"}, std::chrono::seconds(60));
    EXPECT_EQ(result.m_status, 0) << result.m_output << result.m_errors;
}

TEST_F(Selftest, FailsWhenAModuleThatDetectsIsMissing) {
    const TestSupport::TemporaryFolder folder;
    const ChildProcess::Result result =
        ChildProcess::Run({kAgent, "selftest", "--modules", folder.Path()});
    EXPECT_EQ(result.m_status, 1);
    EXPECT_NE(result.m_errors.find("Module(process_collect_module) cannot be loaded"),
              std::string::npos)
        << result.m_errors;
    EXPECT_NE(result.m_errors.find("selftest: the agent did not start"), std::string::npos);
}

TEST_F(Selftest, EndsWithFourWhenAPrivilegeIsMissing) {
    const ChildProcess::Result result = ChildProcess::Run(
        {"setpriv", "--bounding-set=-all", "--inh-caps=-all", kAgent, "selftest"});
    EXPECT_EQ(result.m_status, 4);
    EXPECT_NE(result.m_errors.find("missing privilege: "), std::string::npos) << result.m_errors;
}

}  // namespace
