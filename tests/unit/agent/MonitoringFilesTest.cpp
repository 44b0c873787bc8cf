// What the package has for monitoring systems, beside what the agent tells them.

#include "FullStatus.h"
#include "MetricsText.h"
#include "sdk/JsonUtils.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

using Names = std::set<std::string>;

/// The names of all samples that metrics may have.
Names Served() {
    std::istringstream lines(Agent::ToMetrics(FullStatus()));
    Names names;
    for (std::string line; std::getline(lines, line);) {
        if (line[0] != '#') {
            names.insert(line.substr(0, line.find_first_of("{ ")));
        }
    }
    return names;
}

/// The names of all samples that a text asks for.
Names Asked(const std::string& text) {
    const std::regex name("vmescape_[a-z_]+");
    Names names;
    for (std::sregex_iterator found(text.begin(), text.end(), name), end; found != end; ++found) {
        names.insert(found->str());
    }
    return names;
}

/// Those that are asked for and never served.
Names Missing(const Names& asked) {
    const Names served = Served();
    Names missing;
    std::set_difference(asked.begin(), asked.end(), served.begin(), served.end(),
                        std::inserter(missing, missing.end()));
    return missing;
}

TEST(AlertRules, AskOnlyForMetricsThatAreServed) {
    const Names asked =
        Asked(TestSupport::ReadText(SOURCE_FOLDER "/packaging/prometheus-alerts.yml"));
    EXPECT_GE(asked.size(), 10U);
    EXPECT_EQ(Missing(asked), Names());
}

TEST(MetricsReference, NamesEveryMetricAndNoOther) {
    const std::string text = TestSupport::ReadText(SOURCE_FOLDER "/docs/metrics.md");
    Names asked = Asked(std::regex_replace(text, std::regex("vmescape_[0-9]+"), ""));
    EXPECT_EQ(asked.erase("vmescape_latency_seconds"), 1U)
        << "stands for its three kinds of samples";
    for (const char* part : {"bucket", "sum", "count"}) {
        asked.insert(std::string("vmescape_latency_seconds_") + part);
    }
    EXPECT_EQ(asked, Served());
}

class Dashboard : public testing::Test {
protected:
    void SetUp() override {
        const std::string text =
            TestSupport::ReadText(SOURCE_FOLDER "/packaging/grafana-dashboard.json");
        std::string error;
        ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), m_dashboard, error), 0)
            << error;
    }

    Json::Value m_dashboard;
};

TEST_F(Dashboard, AsksOnlyForMetricsThatAreServed) {
    Names asked;
    for (const Json::Value& panel : m_dashboard["panels"]) {
        for (const Json::Value& target : panel["targets"]) {
            const Names names = Asked(target["expr"].asString());
            EXPECT_FALSE(names.empty()) << panel["title"].asString();
            asked.insert(names.begin(), names.end());
        }
    }
    for (const Json::Value& variable : m_dashboard["templating"]["list"]) {
        asked.merge(Asked(variable["definition"].asString()));
    }
    EXPECT_GE(asked.size(), 15U);
    EXPECT_EQ(Missing(asked), Names());
}

TEST_F(Dashboard, TakesItsDataFromTheSourceThatTheUserChooses) {
    EXPECT_EQ(m_dashboard["templating"]["list"][0]["name"].asString(), "datasource");
    EXPECT_EQ(m_dashboard["templating"]["list"][0]["type"].asString(), "datasource");
    for (const Json::Value& panel : m_dashboard["panels"]) {
        for (const Json::Value& target : panel["targets"]) {
            EXPECT_EQ(panel["datasource"]["uid"].asString(), "${datasource}")
                << panel["title"].asString();
            EXPECT_EQ(target["datasource"]["uid"].asString(), "${datasource}")
                << panel["title"].asString();
        }
    }
}

TEST_F(Dashboard, GivesEachPanelANumberOfItsOwnAndAPlaceInTheGrid) {
    std::set<int> numbers;
    for (const Json::Value& panel : m_dashboard["panels"]) {
        EXPECT_TRUE(numbers.insert(panel["id"].asInt()).second) << panel["title"].asString();
        const Json::Value& place = panel["gridPos"];
        EXPECT_GT(place["w"].asInt(), 0) << panel["title"].asString();
        EXPECT_LE(place["x"].asInt() + place["w"].asInt(), 24) << panel["title"].asString();
    }
    EXPECT_GE(numbers.size(), 15U);
}

}  // namespace
