#include "Settings.h"

#include "DescribedKeys.h"
#include "sdk/JsonUtils.h"
#include "support/TemporaryFolder.h"

#include <Poco/Util/MapConfiguration.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Agent::Problem;

class Settings : public testing::Test {
protected:
    /// The problems of a configuration file with this text, one text each.
    std::vector<std::string> Load(const std::string& text) {
        std::vector<std::string> lines;
        for (const Problem& problem : m_settings.Load(m_folder.Write("c", text))) {
            const std::string line = Agent::ToText(problem);
            lines.push_back(line.substr((m_folder / "c: ").length()));
        }
        return lines;
    }

    using Lines = std::vector<std::string>;

    TestSupport::TemporaryFolder m_folder;
    Agent::Settings m_settings;
};

TEST_F(Settings, HaveDefaults) {
    EXPECT_EQ(m_settings.Get("policies"), "/etc/vmescape/policies");
    EXPECT_EQ(m_settings.Get("report.format"), "auto");
    EXPECT_EQ(m_settings.GetInt("cpu_share"), 0);
    EXPECT_EQ(m_settings.Get("record.file"), "");
    EXPECT_EQ(m_settings.GetInt("record.megabytes"), 1024);
    EXPECT_FALSE(m_settings.Has("policies"));
    EXPECT_TRUE(m_settings.GetList("optional_modules").empty());
}

TEST_F(Settings, AreReadFromNestedObjects) {
    EXPECT_EQ(Load(R"({"policies": "/p", "report": {"format": "json", "queue": 9},
                       "optional_modules": ["a", "b"], "cpu_share": 100})"),
              Lines());
    EXPECT_EQ(m_settings.Get("policies"), "/p");
    EXPECT_EQ(m_settings.Get("report.format"), "json");
    EXPECT_EQ(m_settings.GetInt("report.queue"), 9);
    EXPECT_EQ(m_settings.GetList("optional_modules"), (Lines{"a", "b"}));
    EXPECT_TRUE(m_settings.Has("cpu_share"));
}

TEST_F(Settings, UnknownKeysAreWarnedAbout) {
    EXPECT_EQ(Load(R"({"x": 1, "report": {"colour": "auto"}})"),
              (Lines{"/report/colour: warning: unknown key", "/x: warning: unknown key"}));
}

TEST_F(Settings, WrongTypesAreRefusedWithWhatWasExpected) {
    EXPECT_EQ(Load(R"({"policies": 3})"), Lines{"/policies: expected a string, found a number"});
    EXPECT_EQ(Load(R"({"cpu_share": "50"})"),
              Lines{"/cpu_share: expected a whole number from 0 to 100, found a string"});
    EXPECT_EQ(Load(R"({"cpu_share": 0.5})"),
              Lines{"/cpu_share: expected a whole number from 0 to 100, found a number"});
    EXPECT_EQ(Load(R"({"optional_modules": "a"})"),
              Lines{"/optional_modules: expected a list of strings, found a string"});
    EXPECT_EQ(Load(R"({"optional_modules": {}})"),
              Lines{"/optional_modules: expected a list of strings, found an object"});
    EXPECT_EQ(Load(R"({"report": "json"})"), Lines{"/report: expected an object"});
    EXPECT_EQ(Load("[]"), Lines{"expected a JSON object, found an empty list"});
}

TEST_F(Settings, WrongValuesAreRefusedWithWhatWasExpected) {
    EXPECT_EQ(Load(R"({"report": {"format": "xml"}})"),
              Lines{"/report/format: expected one of: auto text json ocsf ecs, found \"xml\""});
    EXPECT_EQ(Load(R"({"report": {"queue": 0}})"),
              Lines{"/report/queue: expected a whole number from 1 to 1000000, found \"0\""});
    EXPECT_EQ(Load(R"({"cpu_share": 101})"),
              Lines{"/cpu_share: expected a whole number from 0 to 100, found \"101\""});
}

TEST_F(Settings, WhatIsWrongIsNotTaken) {
    Load(R"({"report": {"format": "xml", "queue": 5}})");
    EXPECT_EQ(m_settings.Get("report.format"), "auto");
    EXPECT_EQ(m_settings.GetInt("report.queue"), 5);
}

TEST_F(Settings, OutputsMayBeOneOrSeveral) {
    EXPECT_EQ(Load(R"({"report": {"output": "file:/a"}})"), Lines());
    EXPECT_EQ(m_settings.Get("report.output"), "file:/a");
    EXPECT_EQ(Load(R"({"report": {"output": ["text:stdout", "json:file:/a"]}})"), Lines());
    EXPECT_EQ(m_settings.Get("report.output"), "text:stdout,json:file:/a");
}

TEST_F(Settings, OutputsMayNameEachFormat) {
    for (const char* format : {"text", "json", "ocsf", "ecs"}) {
        for (const char* output : {":stdout", ":file:/a", ":syslog", ":syslog:tcp:h:1"}) {
            EXPECT_EQ(m_settings.Set("report.output", std::string(format) + output), "");
        }
        EXPECT_EQ(m_settings.Set("report.format", format), "");
    }
}

TEST_F(Settings, TheWebhookIsAnOutputWithKeysOfItsOwn) {
    EXPECT_EQ(Load(R"({"report": {"output": ["json:webhook", "webhook"],
                                  "webhook": {"url": "https://host/", "batch": 7}}})"),
              Lines());
    EXPECT_EQ(m_settings.Get("report.webhook.url"), "https://host/");
    EXPECT_EQ(m_settings.GetInt("report.webhook.batch"), 7);
    EXPECT_EQ(m_settings.GetInt("report.webhook.timeout"), 5);
    EXPECT_NE(m_settings.Set("report.output", "webhook:https://host/"), "");
    EXPECT_NE(m_settings.Set("report.webhook.batch", "0"), "");
}

TEST_F(Settings, TheJournalIsAnOutput) {
    EXPECT_EQ(m_settings.Set("report.output", "journald,json:journald"), "");
    EXPECT_NE(m_settings.Set("report.output", "journald:"), "");
}

TEST_F(Settings, FilesMayBeRotatedAndSayWhatAFullDiskCosts) {
    EXPECT_EQ(Load(R"({"report": {"file": {"megabytes": 100, "keep": 3, "full": "wait"}}})"),
              Lines());
    EXPECT_EQ(m_settings.GetInt("report.file.megabytes"), 100);
    EXPECT_EQ(m_settings.GetInt("report.file.keep"), 3);
    EXPECT_EQ(m_settings.Get("report.file.full"), "wait");
    EXPECT_EQ(Load(R"({"report": {"file": {"keep": 0, "full": "no"}}})"),
              (Lines{"/report/file/full: expected one of: drop rotate wait, found \"no\"",
                     "/report/file/keep: expected a whole number from 1 to 999, found \"0\""}));
}

TEST_F(Settings, OutputsThatNobodyKnowsAreRefused) {
    for (const char* output :
         {"", "stderr", "file:", "xml:stdout", "stdout,", "json:", "auto:stdout", "OCSF:stdout"}) {
        EXPECT_NE(m_settings.Set("report.output", output), "") << output;
    }
    EXPECT_EQ(Load(R"({"report": {"output": []}})").size(), 1U);
    EXPECT_EQ(Load(R"({"report": {"output": [1]}})").size(), 1U);
    EXPECT_EQ(Load(R"({"report": {"output": ["", "stdout"]}})").size(), 1U);
}

TEST_F(Settings, TheCommandLineStandsAboveTheFile) {
    Load(R"({"report": {"format": "json"}})");
    EXPECT_EQ(m_settings.Set("report.format", "text"), "");
    EXPECT_EQ(m_settings.Get("report.format"), "text");
}

TEST_F(Settings, TheCommandLineIsToldWhatIsWrong) {
    EXPECT_EQ(m_settings.Set("nonsense", "1"), "unknown key \"nonsense\"");
    EXPECT_EQ(m_settings.Set("report", "1"), "unknown key \"report\"");
    EXPECT_EQ(m_settings.Set("cpu_share", "half"),
              "cpu_share: expected a whole number from 0 to 100, found \"half\"");
    EXPECT_EQ(m_settings.Set("log_level", "loud"),
              "log_level: expected one of: fatal critical error warning notice information debug "
              "trace, found \"loud\"");
}

TEST_F(Settings, NumbersOfTheCommandLineAreDigitsAndNothingElse) {
    for (const char* text : {"1,5", "1 5", " 5", "5 ", "+5", "-0", "0x5", "5.", "", "99999999999",
                             "18446744073709551621"}) {
        EXPECT_NE(m_settings.Set("record.megabytes", text), "") << text;
        EXPECT_NE(m_settings.Set("cpu_share", text), "") << text;
    }
    EXPECT_EQ(m_settings.Set("record.megabytes", "15"), "");
    EXPECT_EQ(m_settings.GetInt("record.megabytes"), 15);
}

TEST_F(Settings, ReachTheModulesAsTheyWereSet) {
    Load(R"({"report": {"queue": 5}})");
    m_settings.Set("process_collect.source", "bpf");
    Poco::AutoPtr<Poco::Util::MapConfiguration> target(new Poco::Util::MapConfiguration);
    m_settings.Export(*target);
    EXPECT_EQ(target->getInt("report.queue"), 5);
    EXPECT_EQ(target->getString("process_collect.source"), "bpf");
    EXPECT_FALSE(target->has("report.format"));
}

TEST_F(Settings, OfAMissingFileAreAProblem) {
    const std::vector<Problem> problems = m_settings.Load(m_folder / "missing");
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_EQ(problems[0].m_text, "cannot be read: No such file or directory");
}

TEST_F(Settings, OfAFileThatOthersMayWriteAreRefused) {
    const std::string file = m_folder.Write("agent.json", "{}");
    ::chmod(file.c_str(), 0666);
    const std::vector<Problem> problems = m_settings.Load(file);
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_EQ(problems[0].m_text, "is refused: " + file +
                                      " may be written by others (mode 0666), expected 0755 at "
                                      "the most");
    EXPECT_FALSE(problems[0].m_warning);
}

TEST(SettingsSchema, DescribesEveryKeyThatHelpLists) {
    const Json::Value schema = Agent::Settings::Schema();
    EXPECT_GE(CountDescribedKeys(schema), 15);
    std::istringstream lines(Agent::Settings::DescribeKeys());
    for (std::string line; std::getline(lines, line);) {
        const std::string key = line.substr(2, line.find(':') - 2);
        EXPECT_TRUE(schema["properties"].isMember(key)) << key;
        const std::size_t dot = key.find('.');
        if (dot != std::string::npos) {
            EXPECT_TRUE(schema["properties"][key.substr(0, dot)]["properties"].isMember(
                key.substr(dot + 1)))
                << key;
        }
    }
}

TEST(SettingsSchema, TellsTypesLimitsWordsAndDefaults) {
    const Json::Value keys = Agent::Settings::Schema()["properties"];
    const auto text = [](const Json::Value& value) { return SDK::JsonUtils::JsonToString(value); };
    EXPECT_EQ(text(keys["cpu_share"]),
              R"({"default":0,"description":"Percent of a core for each task, 0: no limit.",)"
              R"("maximum":100,"minimum":0,"type":"integer"})");
    const Json::Value report = keys["report"]["properties"];
    EXPECT_EQ(text(report["format"]["enum"]), R"(["auto","text","json","ocsf","ecs"])");
    EXPECT_EQ(report["output"]["anyOf"].size(), 2U) << "one text or a list";
    EXPECT_EQ(keys["policies"]["default"].asString(), "/etc/vmescape/policies");
    EXPECT_EQ(keys["optional_modules"]["items"]["type"].asString(), "string");
    EXPECT_EQ(keys["report.format"]["$ref"].asString(), "#/properties/report/properties/format");
    EXPECT_FALSE(Agent::Settings::Schema().isMember("additionalProperties"));
}

using Cells = std::vector<std::string>;

/// The rows of the table of all keys in the document for operators, by key.
std::map<std::string, Cells> DocumentedKeys() {
    std::istringstream lines(TestSupport::ReadText(SOURCE_FOLDER "/docs/agent.md"));
    std::map<std::string, Cells> rows;
    bool inTable = false;
    for (std::string line; std::getline(lines, line);) {
        inTable = line == "| key | default | values | meaning |" || (inTable && !line.empty());
        if (!inTable || !line.starts_with("| `")) {
            continue;
        }
        Cells cells;
        for (std::size_t at = 2, end = 0; (end = line.find(" |", at)) != std::string::npos;) {
            cells.push_back(line.substr(at, end - at));
            at = end + 3;
        }
        const std::string key = cells.at(0).substr(1, cells[0].length() - 2);
        EXPECT_TRUE(rows.emplace(key, cells).second) << key << " stands there twice";
    }
    return rows;
}

TEST(SettingsReference, HasEveryKeyWithItsDefaultItsLimitsAndItsWordsAndNoOther) {
    std::map<std::string, Cells> rows = DocumentedKeys();
    const Json::Value schema = Agent::Settings::Schema()["properties"];
    std::istringstream lines(Agent::Settings::DescribeKeys());
    for (std::string line; std::getline(lines, line);) {
        const std::string key = line.substr(2, line.find(':') - 2);
        ASSERT_EQ(rows.count(key), 1U) << key << " is missing in docs/agent.md";
        const Cells row = rows[key];
        ASSERT_EQ(row.size(), 4U) << key;
        rows.erase(key);
        const std::size_t dot = key.find('.');
        const Json::Value& entry =
            dot == std::string::npos
                ? schema[key]
                : schema[key.substr(0, dot)]["properties"][key.substr(dot + 1)];
        const std::string standard = entry["default"].isArray() ? "" : entry["default"].asString();
        EXPECT_TRUE(standard.empty() || row[1] == '`' + standard + '`') << key << ": " << row[1];
        if (entry.isMember("minimum")) {
            EXPECT_EQ(row[2], entry["minimum"].asString() + " to " + entry["maximum"].asString())
                << key;
        }
        std::string words;
        for (const Json::Value& word : entry["enum"]) {
            words += (words.empty() ? "`" : ", `") + word.asString() + '`';
        }
        EXPECT_TRUE(words.empty() || row[2] == words) << key << ": " << row[2];
    }
    for (const auto& [key, row] : rows) {
        ADD_FAILURE() << key << " is in docs/agent.md, but no key";
    }
}

}  // namespace
