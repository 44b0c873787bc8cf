// One escape in all formats.

#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/WaitUntil.h"

#include <Poco/Environment.h>

#include <signal.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace {

using TestSupport::ReadText;

class AlarmFormats : public LiveTest {
protected:
    /// The lines of an output's file.
    std::vector<Json::Value> Lines(const std::string& file) const {
        std::vector<Json::Value> documents;
        std::istringstream lines(ReadText(m_folder / file));
        for (std::string line; std::getline(lines, line) && !lines.eof();) {
            documents.emplace_back();
            EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.c_str(), line.length(), documents.back()),
                      0)
                << line;
        }
        return documents;
    }

    std::vector<std::string> Outputs() const {
        return {"--output", "json:file:" + m_folder / "json" + ",ocsf:file:" + m_folder / "ocsf" +
                                ",ecs:file:" + m_folder / "ecs"};
    }

    /// Ends the agent, which writes all that waits, once the alarm of a command is in each file.
    void StopAfter(Agent& agent, const std::string& command) const {
        for (const char* file : {"json", "ocsf", "ecs"}) {
            EXPECT_TRUE(TestSupport::WaitUntil([&] {
                return ReadText(m_folder / file).find('"' + command + '"') != std::string::npos;
            })) << file
                << agent.Log();
        }
        EXPECT_EQ(agent.Stop(SIGTERM), 0);
    }

    static std::string BootId() {
        std::string id;
        std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
        return id;
    }

    const TestSupport::TemporaryFolder m_folder;
};

TEST_F(AlarmFormats, TellOfOneEscapeUnderOneId) {
    Agent agent(BUILD_FOLDER, DenyList(), Outputs());
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.RunShell("/usr/bin/id -u; exit 1");
    StopAfter(agent, "/usr/bin/id -u");
    const std::vector<Json::Value> alarms = Lines("json");
    const std::vector<Json::Value> findings = Lines("ocsf");
    const std::vector<Json::Value> records = Lines("ecs");
    ASSERT_GE(alarms.size(), 2U);  // the shell, and the command in it
    ASSERT_EQ(findings.size(), alarms.size());
    ASSERT_EQ(records.size(), alarms.size());
    for (std::size_t i = 0; i < alarms.size(); ++i) {
        const Json::Value& process = alarms[i]["process_info"][0];
        const Json::Value& evidence = findings[i]["evidences"][0]["process"];
        EXPECT_EQ(alarms[i]["event_id"].asString().length(), 36U);
        EXPECT_EQ(findings[i]["finding_info"]["uid"], alarms[i]["event_id"]);
        EXPECT_EQ(records[i]["event"]["id"], alarms[i]["event_id"]);
        EXPECT_EQ(findings[i]["time"].asInt64(), alarms[i]["occur_time"].asInt64() * 1000);
        EXPECT_EQ(evidence["pid"], process["process_pid"]);
        EXPECT_EQ(evidence["cmd_line"], process["process_cmdline"]);
        EXPECT_EQ(records[i]["process"]["pid"], process["process_pid"]);
        EXPECT_EQ(records[i]["process"]["command_line"], process["process_cmdline"]);
        EXPECT_EQ(findings[i]["resources"][0]["name"], "vm-01");
        EXPECT_EQ(records[i]["vmescape"]["resource_info"]["vm_name"], "vm-01");
    }
}

TEST_F(AlarmFormats, TellOfTheHostWhereTheirSchemaHasAPlaceForIt) {
    Agent agent(BUILD_FOLDER, DenyList(), Outputs());
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.RunShell("/usr/bin/id -u; exit 1");
    StopAfter(agent, "/usr/bin/id -u");
    const std::string host = Poco::Environment::nodeName();
    ASSERT_EQ(BootId().length(), 36U);
    for (const Json::Value& finding : Lines("ocsf")) {
        EXPECT_EQ(finding["device"]["hostname"], host);
        EXPECT_EQ(finding["device"]["boot_uid"], BootId());
        EXPECT_EQ(finding["metadata"]["product"]["version"], VMESCAPE_VERSION);
    }
    for (const Json::Value& record : Lines("ecs")) {
        EXPECT_EQ(record["host"]["name"], host);
        EXPECT_EQ(record["host"]["boot"]["id"], BootId());
        EXPECT_EQ(record["agent"]["version"], VMESCAPE_VERSION);
    }
    const std::string documents = ReadText(m_folder / "json");
    EXPECT_NE(documents, "");
    EXPECT_EQ(documents.find(BootId()), std::string::npos);
    EXPECT_EQ(documents.find('"' + host + '"'), std::string::npos);
}

}  // namespace
