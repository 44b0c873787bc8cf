#include "Options.h"

#include <gtest/gtest.h>

namespace {

using Agent::Options;

class CommandLine : public testing::Test {
protected:
    /// @return whether the program goes on
    bool Parse(std::vector<const char*> arguments) {
        arguments.insert(arguments.begin(), "vmescape-agent");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const bool result = Agent::ParseOptions(static_cast<int>(arguments.size()),
                                                arguments.data(), m_options, m_exitCode);
        m_output = testing::internal::GetCapturedStdout();
        m_errors = testing::internal::GetCapturedStderr();
        return result;
    }

    Options m_options;
    int m_exitCode = -1;
    std::string m_output;
    std::string m_errors;
};

using Pairs = std::vector<std::pair<std::string, std::string>>;

TEST_F(CommandLine, RunTakesItsDefaults) {
    ASSERT_TRUE(Parse({"run"}));
    EXPECT_EQ(m_options.m_verb, Options::Verb::RUN);
    EXPECT_EQ(m_options.m_config, "");
    EXPECT_TRUE(m_options.m_settings.empty());
}

TEST_F(CommandLine, OptionsOfRunAreSettingsByAnotherName) {
    ASSERT_TRUE(Parse({"run", "--config", "c", "--policies", "p", "--modules=m", "--format", "json",
                       "--output", "file:x", "--log-level", "debug"}));
    EXPECT_EQ(m_options.m_config, "c");
    EXPECT_EQ(m_options.m_settings, (Pairs{{"policies", "p"},
                                           {"modules", "m"},
                                           {"report.format", "json"},
                                           {"report.output", "file:x"},
                                           {"log_level", "debug"}}));
}

TEST_F(CommandLine, RunTakesAFileToRecordIn) {
    ASSERT_TRUE(Parse({"run", "--record", "r"}));
    EXPECT_EQ(m_options.m_settings, (Pairs{{"record.file", "r"}}));
    EXPECT_TRUE(m_options.Sets("record.file"));
    EXPECT_FALSE(m_options.Sets("record.megabytes"));
}

TEST_F(CommandLine, KeysAreSetAnyNumberOfTimes) {
    ASSERT_TRUE(Parse({"run", "-o", "report.queue=7", "-o", "report.output=file:a=b"}));
    EXPECT_EQ(m_options.m_settings, (Pairs{{"report.queue", "7"}, {"report.output", "file:a=b"}}));
}

TEST_F(CommandLine, OutputsAreGivenWithCommasOrOptions) {
    ASSERT_TRUE(Parse({"run", "--output", "stdout", "--output", "file:/a,syslog"}));
    ASSERT_EQ(m_options.m_settings.size(), 1U);
    EXPECT_EQ(m_options.m_settings[0].first, "report.output");
    EXPECT_EQ(m_options.m_settings[0].second, "stdout,file:/a,syslog");
}

TEST_F(CommandLine, VersionIsAVerbToo) {
    ASSERT_TRUE(Parse({"version"}));
    EXPECT_EQ(m_options.m_verb, Options::Verb::VERSION);
    EXPECT_FALSE(m_options.m_json);
    ASSERT_TRUE(Parse({"version", "--json"}));
    EXPECT_TRUE(m_options.m_json);
}

TEST_F(CommandLine, AKeyWithoutValueIsAUsageError) {
    EXPECT_FALSE(Parse({"run", "-o", "report.queue"}));
    EXPECT_EQ(m_exitCode, Agent::EXIT_USAGE);
    EXPECT_NE(m_errors.find("expected key=value, found \"report.queue\""), std::string::npos);
}

TEST_F(CommandLine, CheckTakesFilesAndJson) {
    ASSERT_TRUE(Parse({"check", "--json", "a"}));
    EXPECT_TRUE(m_options.m_json);
    m_options = {};
    ASSERT_TRUE(Parse({"check", "a.json", "b.json"}));
    EXPECT_EQ(m_options.m_verb, Options::Verb::CHECK);
    EXPECT_EQ(m_options.m_files, (std::vector<std::string>{"a.json", "b.json"}));
}

TEST_F(CommandLine, WhatIsNotUnderstoodIsAUsageError) {
    const std::vector<std::vector<const char*>> lines = {
        {}, {"walk"}, {"run", "--nonsense"}, {"check"}, {"run", "--format"}, {"run", "extra"}};
    for (const std::vector<const char*>& line : lines) {
        m_exitCode = -1;
        EXPECT_FALSE(Parse(line));
        EXPECT_EQ(m_exitCode, Agent::EXIT_USAGE);
        EXPECT_NE(m_errors, "");
    }
}

TEST_F(CommandLine, HelpAndVersionEndWell) {
    EXPECT_FALSE(Parse({"--help"}));
    EXPECT_EQ(m_exitCode, Agent::EXIT_GOOD);
    EXPECT_NE(m_output.find("check"), std::string::npos);
    EXPECT_FALSE(Parse({"--version"}));
    EXPECT_EQ(m_exitCode, Agent::EXIT_GOOD);
    EXPECT_EQ(m_output, "vmescape-agent " VMESCAPE_VERSION "\n");
}

TEST_F(CommandLine, HelpOfRunNamesEveryKeyAndEveryExitStatus) {
    EXPECT_FALSE(Parse({"run", "--help"}));
    EXPECT_EQ(m_exitCode, Agent::EXIT_GOOD);
    for (const char* text : {"report.output", "optional_modules", "cpu_share",
                             "process_collect.source", "Exit status: 0"}) {
        EXPECT_NE(m_output.find(text), std::string::npos) << text;
    }
}

TEST_F(CommandLine, SelftestTakesModulesAndJson) {
    ASSERT_TRUE(Parse({"selftest", "--json", "--modules", "m"}));
    EXPECT_EQ(m_options.m_verb, Options::Verb::SELFTEST);
    EXPECT_TRUE(m_options.m_json);
    EXPECT_EQ(m_options.m_settings, (Pairs{{"modules", "m"}}));
    EXPECT_FALSE(Parse({"selftest", "--policies", "p"}));
    EXPECT_EQ(m_exitCode, 2);
}

TEST_F(CommandLine, TheActorOfTheSelftestIsHiddenAndTakesAMachinesArguments) {
    ASSERT_TRUE(Parse({"selftest-actor", "-name", "guest=vm"}));
    EXPECT_EQ(m_options.m_verb, Options::Verb::SELFTEST_ACTOR);
    EXPECT_FALSE(Parse({"--help"}));
    EXPECT_NE(m_output.find("selftest "), std::string::npos);
    EXPECT_EQ(m_output.find("selftest-actor"), std::string::npos);
}

TEST_F(CommandLine, MetricsTakesWhereToServeAndWhereToAsk) {
    ASSERT_TRUE(Parse({"metrics", "--listen", "127.0.0.1:9464", "--socket", "/s"}));
    EXPECT_EQ(m_options.m_verb, Options::Verb::METRICS);
    EXPECT_EQ(m_options.m_listen, "127.0.0.1:9464");
    EXPECT_EQ(m_options.m_socket, "/s");
}

TEST_F(CommandLine, StatusTakesWhereToAsk) {
    ASSERT_TRUE(Parse({"status", "--json", "--socket", "s", "--config", "c"}));
    EXPECT_EQ(m_options.m_verb, Options::Verb::STATUS);
    EXPECT_TRUE(m_options.m_json);
    EXPECT_EQ(m_options.m_socket, "s");
    EXPECT_EQ(m_options.m_config, "c");
}

TEST_F(CommandLine, LearnTakesATimeAndAFolder) {
    ASSERT_TRUE(Parse({"learn", "--for", "10m", "--into", "drafts"}));
    EXPECT_EQ(m_options.m_verb, Options::Verb::LEARN);
    EXPECT_EQ(m_options.m_for, std::chrono::minutes(10));
    EXPECT_EQ(m_options.m_into, "drafts");
    EXPECT_FALSE(m_options.m_json);
    ASSERT_TRUE(Parse({"learn", "--for=7", "--into=d", "--json", "--config", "c", "--policies", "p",
                       "--modules", "m"}));
    EXPECT_EQ(m_options.m_for, std::chrono::seconds(7));
    EXPECT_EQ(m_options.m_config, "c");
    EXPECT_TRUE(m_options.m_json);
    EXPECT_EQ(m_options.m_settings, (Pairs{{"policies", "p"}, {"modules", "m"}}));
}

TEST_F(CommandLine, LearnNeedsATimeThatItUnderstands) {
    EXPECT_FALSE(Parse({"learn", "--into", "drafts"}));
    EXPECT_EQ(m_exitCode, Agent::EXIT_USAGE);
    EXPECT_FALSE(Parse({"learn", "--for", "10m"}));
    EXPECT_EQ(m_exitCode, Agent::EXIT_USAGE);
    EXPECT_FALSE(Parse({"learn", "--for", "1w", "--into", "drafts"}));
    EXPECT_EQ(m_exitCode, Agent::EXIT_USAGE);
    EXPECT_NE(m_errors.find("--for: expected a whole number of seconds, or one followed by s, m, h "
                            "or d, of at most 365 days, found \"1w\""),
              std::string::npos)
        << m_errors;
}

TEST_F(CommandLine, SchemaTakesAName) {
    ASSERT_TRUE(Parse({"schema"}));
    EXPECT_EQ(m_options.m_verb, Options::Verb::SCHEMA);
    EXPECT_EQ(m_options.m_schema, "");
    ASSERT_TRUE(Parse({"schema", "--json", "alarm"}));
    EXPECT_EQ(m_options.m_schema, "alarm");
    EXPECT_TRUE(m_options.m_json);
}

TEST_F(CommandLine, ASchemaThatThereIsNotIsAUsageErrorThatListsTheOthers) {
    EXPECT_FALSE(Parse({"schema", "alarms"}));
    EXPECT_EQ(m_exitCode, Agent::EXIT_USAGE);
    for (const char* part : {"alarms", "qemu_cmd_detect_feature", "agent", "alarm}"}) {
        EXPECT_NE(m_errors.find(part), std::string::npos) << part << m_errors;
    }
}

TEST_F(CommandLine, ListTakesWhereToAsk) {
    ASSERT_TRUE(Parse({"list", "--json", "--socket", "s", "--config", "c"}));
    EXPECT_EQ(m_options.m_verb, Options::Verb::LIST);
    EXPECT_TRUE(m_options.m_json);
    EXPECT_EQ(m_options.m_socket, "s");
    EXPECT_EQ(m_options.m_config, "c");
}

}  // namespace
