#include "LearnReport.h"

#include "ExitCode.h"

#include <gtest/gtest.h>

namespace {

using Agent::LearnReport;

class Report : public testing::Test {
protected:
    Report() {
        Json::Value rule;
        rule["virtcmd"] = "qemu";
        rule["cmdlist"].append("/bin/a");
        rule["cmdlist"].append("/bin/b \x1b[31m");
        Json::Value& commands = m_report.m_result.m_policies["qemu_cmd_detect_feature"];
        commands["content"]["monitor_list"].append(rule);
        rule["virtcmd"] = "kvm";
        rule["cmdlist"] = Json::arrayValue;
        commands["content"]["monitor_list"].append(rule);
        Json::Value ports;
        ports["virtmonitor"] = "qemu";
        ports["portlist"].append("10809");
        m_report.m_result.m_policies["qemu_port_detect_feature"]["content"]["monitor_list"].append(
            ports);
        m_report.m_from = "2026-11-21T10:00:00Z";
        m_report.m_to = "2026-11-21T10:10:00Z";
        m_report.m_watched = std::chrono::minutes(10);
        m_report.m_folder = "drafts";
        m_report.m_inForce = "/etc/vmescape/policies";
        m_report.m_files = {"drafts/qemu_cmd_detect_feature.json",
                            "drafts/qemu_port_detect_feature.json"};
    }

    bool Says(const std::string& part) const {
        return m_report.ToText().find(part) != std::string::npos;
    }

    LearnReport m_report;
};

TEST_F(Report, TellsWhatWasLearnedOfEachProgram) {
    EXPECT_EQ(m_report.ExitStatus(), Agent::EXIT_GOOD);
    EXPECT_EQ(m_report.ToText(),
              "Learned for 10m, from 2026-11-21T10:00:00Z to 2026-11-21T10:10:00Z.\n"
              "\n"
              "qemu\n"
              "    commands  /bin/a\n"
              "              /bin/b \\x1b[31m\n"
              "    ports     10809\n"
              "Nothing is allowed for: kvm\n"
              "\n"
              "Written:\n"
              "    drafts/qemu_cmd_detect_feature.json\n"
              "    drafts/qemu_port_detect_feature.json\n"
              "\n"
              "Whatever happened meanwhile is allowed by these policies, whoever did it: look at "
              "each entry.\n"
              "Then try them beside the agent that runs, and put them into force:\n"
              "    vmescape-agent check drafts/*.json\n"
              "    vmescape-agent run --policies drafts --output text:stdout -o status.socket= "
              "-o record.file=\n"
              "    cp drafts/*.json /etc/vmescape/policies/\n"
              "The agent that runs reads them as soon as they are there.\n");
}

TEST_F(Report, TellsWhatStaysAnAlarm) {
    m_report.m_result.m_notAllowable = {
        {"qemu_cmd_detect_feature", "qemu", "/bin/sh\n", "for a reason"}};
    EXPECT_EQ(m_report.ExitStatus(), Agent::EXIT_INCOMPLETE);
    EXPECT_TRUE(
        Says("\nCannot be allowed, and stays an alarm:\n"
             "    qemu: /bin/sh\\n\n"
             "        for a reason\n"));
    m_report.m_result.m_notAllowable.clear();
    m_report.m_result.m_noRoom = {{"qemu_port_detect_feature", "qemu", "7", "the list is full"}};
    EXPECT_EQ(m_report.ExitStatus(), Agent::EXIT_INCOMPLETE);
    EXPECT_TRUE(Says("\nNo room, and stays an alarm:\n    qemu: 7\n"));
}

TEST_F(Report, TellsWhatMayBeMissing) {
    m_report.m_interrupted = true;
    EXPECT_EQ(m_report.ExitStatus(), Agent::EXIT_GOOD);
    EXPECT_TRUE(Says("to 2026-11-21T10:10:00Z, when it was interrupted.\n"));
    m_report.m_missed = {"something"};
    m_report.m_result.m_noRoom = {{"qemu_port_detect_feature", "qemu", "7", "the list is full"}};
    EXPECT_EQ(m_report.ExitStatus(), Agent::EXIT_FAILED);
    EXPECT_TRUE(Says("\nThe policies may be too narrow:\n    something\n"));
}

TEST_F(Report, FailsWhenNotAllWasWritten) {
    m_report.m_files.pop_back();
    EXPECT_EQ(m_report.ExitStatus(), Agent::EXIT_FAILED);
    m_report.m_files.clear();
    EXPECT_FALSE(Says("Written"));
    EXPECT_FALSE(Says("cp "));
    EXPECT_TRUE(Says("10809"));
}

TEST_F(Report, TellsProgramsTheSame) {
    m_report.m_result.m_notAllowable = {{"f", "qemu", "/bin/sh", "for a reason"}};
    m_report.m_missed = {"something"};
    const Json::Value document = m_report.ToJson();
    EXPECT_EQ(document["from"], "2026-11-21T10:00:00Z");
    EXPECT_EQ(document["to"], "2026-11-21T10:10:00Z");
    EXPECT_EQ(document["seconds"], 600);
    EXPECT_FALSE(document["interrupted"].asBool());
    EXPECT_FALSE(document["good"].asBool());
    EXPECT_EQ(document["files"].size(), 2U);
    EXPECT_EQ(document["missed"][0], "something");
    EXPECT_EQ(document["policies"]["qemu_port_detect_feature"],
              m_report.m_result.m_policies["qemu_port_detect_feature"]);
    const Json::Value& sentence = document["cannot_be_allowed"][0];
    EXPECT_EQ(sentence["feature"], "f");
    EXPECT_EQ(sentence["program"], "qemu");
    EXPECT_EQ(sentence["text"], "/bin/sh");
    EXPECT_EQ(sentence["why"], "for a reason");
    EXPECT_TRUE(document["no_room"].isArray());
    EXPECT_TRUE(document["no_room"].empty());
}

}  // namespace
