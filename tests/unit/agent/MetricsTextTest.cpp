#include "MetricsText.h"

#include "FullStatus.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <vector>

namespace {

/// True when the metrics hold this line.
bool Has(const std::string& text, const std::string& line) {
    return text.rfind(line + '\n', 0) == 0 || text.find('\n' + line + '\n') != std::string::npos;
}

TEST(Metrics, TellOnlyThatItIsDownWhenNoAgentAnswers) {
    EXPECT_EQ(Agent::ToMetrics(Json::Value()),
              "# HELP vmescape_up Whether the agent answers.\n"
              "# TYPE vmescape_up gauge\n"
              "vmescape_up 0\n");
}

TEST(Metrics, TellTheAgentsStateVersionAndTimes) {
    const std::string text = Agent::ToMetrics(FullStatus());
    EXPECT_TRUE(Has(text, "vmescape_up 1"));
    EXPECT_TRUE(Has(text, "vmescape_degraded 1"));
    EXPECT_TRUE(Has(text, "vmescape_build_info{version=\"" VMESCAPE_VERSION "\"} 1"));
    EXPECT_TRUE(Has(text, "vmescape_start_time_seconds 60"));
    EXPECT_TRUE(Has(text, "vmescape_last_alarm_time_seconds 86400"));
}

TEST(Metrics, TellOfEachTask) {
    const std::string text = Agent::ToMetrics(FullStatus());
    EXPECT_TRUE(Has(text, R"(vmescape_task_up{task="procs_real_task"} 1)"));
    EXPECT_TRUE(Has(text, R"(vmescape_task_inbox_messages{task="procs_real_task"} 3)"));
    EXPECT_TRUE(Has(text, R"(vmescape_task_inbox_capacity{task="procs_real_task"} 1024)"));
    EXPECT_TRUE(Has(text, R"(vmescape_task_messages_total{task="procs_real_task"} 70)"));
    EXPECT_TRUE(Has(text, R"(vmescape_task_messages_lost_total{task="procs_real_task"} 1)"));
}

TEST(Metrics, TellTheBooksByReasonAndEscapeWhatLabelsCannotHold) {
    const std::string text = Agent::ToMetrics(FullStatus());
    const std::string book = R"({book="alarms",by="file:/a \"b\"\\")";
    EXPECT_TRUE(Has(text, "vmescape_seen_total" + book + "} 5000000000")) << text;
    EXPECT_TRUE(Has(text, "vmescape_delivered_total" + book + "} 4999999996"));
    EXPECT_TRUE(Has(text, "vmescape_waiting" + book + "} 1"));
    EXPECT_TRUE(Has(text, "vmescape_filtered_total" + book + R"(,reason="own"} 1)"));
    EXPECT_TRUE(Has(text, "vmescape_lost_total" + book + R"(,reason="queue_full"} 2)"));
    EXPECT_TRUE(Has(text, "vmescape_kinds_total" + book + R"(,kind="vmescape_0001"} 4)"));
}

TEST(Metrics, TellWhichPartIsInTrouble) {
    const std::string book = R"({book="alarms",by="stdout"})";
    Agent::Status status(60);
    SDK::Ledger books;
    books.m_name = "alarms";
    books.m_by = "stdout";
    EXPECT_TRUE(
        Has(Agent::ToMetrics(status.Document({}, {books})), "vmescape_trouble" + book + " 0"));
    books.m_trouble = "Broken pipe";
    EXPECT_TRUE(
        Has(Agent::ToMetrics(status.Document({}, {books})), "vmescape_trouble" + book + " 1"));
}

TEST(Metrics, HaveOneSampleForOutputsOfOneName) {
    Agent::Status status(60);
    SDK::Ledger books;
    books.m_name = "alarms";
    books.m_by = "stdout";
    books.m_seen = 2;
    const std::string text = Agent::ToMetrics(status.Document({}, {books, books}));
    EXPECT_TRUE(Has(text, R"(vmescape_seen_total{book="alarms",by="stdout"} 4)")) << text;
}

TEST(Metrics, TellOfTheMachinesThatAreWatchedAndOfThoseThatAlarmsNamed) {
    Json::Value status = FullStatus();
    const std::string text = Agent::ToMetrics(status);
    EXPECT_TRUE(Has(text, "vmescape_machines 7")) << text;
    EXPECT_TRUE(Has(text, R"(vmescape_alarmed_machines{class="vmescape_0001"} 2)")) << text;
    status.removeMember("machines");
    EXPECT_EQ(Agent::ToMetrics(status).find("vmescape_machines"), std::string::npos)
        << "an agent that does not count them has not none";
}

/// The samples of a histogram's book, in their order: "0.00025 0".
std::vector<std::string> Buckets(const std::string& text, const std::string& by) {
    const std::string head = R"(vmescape_latency_seconds_bucket{book="alarms",by=")" + by + "\"";
    std::istringstream lines(text);
    std::vector<std::string> buckets;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(head, 0) == 0) {
            // ,le="0.001"} 1
            buckets.push_back(std::regex_replace(line.substr(head.length()),
                                                 std::regex("^,le=\"([^\"]*)\"\\} "), "$1 "));
        }
    }
    return buckets;
}

TEST(Metrics, TellLatenciesInBucketsThatHoldAllBelowThem) {
    const std::string text = Agent::ToMetrics(FullStatus());
    EXPECT_TRUE(Has(text, "# TYPE vmescape_latency_seconds histogram"));
    EXPECT_EQ(Buckets(text, R"(file:/a \"b\"\\)"),
              (std::vector<std::string>{"0.00025 0", "0.0005 1", "0.001 1", "0.002 1", "0.005 1",
                                        "0.01 1", "0.025 1", "0.05 1", "0.1 1", "0.25 2", "1 2",
                                        "10 2", "+Inf 3"}));
    const std::string book = R"({book="alarms",by="file:/a \"b\"\\"})";
    EXPECT_TRUE(Has(text, "vmescape_latency_seconds_sum" + book + " 11.2505")) << text;
    EXPECT_TRUE(Has(text, "vmescape_latency_seconds_count" + book + " 3")) << text;
}

TEST(Metrics, HaveOneHistogramForOutputsOfOneName) {
    Agent::Status status(60);
    SDK::Ledger books;
    books.m_name = "alarms";
    books.m_by = "stdout";
    books.m_latency.emplace();
    books.m_latency->Add(std::chrono::seconds(2));
    SDK::Ledger without = books;
    without.m_latency.reset();
    const std::string text = Agent::ToMetrics(status.Document({}, {books, without, books}));
    const std::vector<std::string> buckets = Buckets(text, "stdout");
    ASSERT_EQ(buckets.size(), 13U) << text;
    EXPECT_EQ(buckets[10], "1 0");
    EXPECT_EQ(buckets[11], "10 2");
    EXPECT_TRUE(Has(text, R"(vmescape_latency_seconds_sum{book="alarms",by="stdout"} 4)")) << text;
}

TEST(Metrics, StandBelowTheirOwnHeads) {
    std::istringstream lines(Agent::ToMetrics(FullStatus()));
    const std::regex part("_(bucket|sum|count)$");
    std::string metric;
    bool histogram = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("# TYPE ", 0) == 0) {
            metric = line.substr(7, line.rfind(' ') - 7);
            histogram = line.substr(line.rfind(' ') + 1) == "histogram";
        } else if (line[0] != '#') {
            const std::string name = line.substr(0, line.find_first_of("{ "));
            EXPECT_EQ(histogram ? std::regex_replace(name, part, "") : name, metric);
        }
    }
}

TEST(Metrics, TellOfEachPolicy) {
    const std::string text = Agent::ToMetrics(FullStatus());
    EXPECT_TRUE(Has(text, R"(vmescape_policy_generation{feature="qemu_cmd_detect_feature"} 1)"));
    EXPECT_TRUE(Has(text, R"(vmescape_policy_refused{feature="qemu_cmd_detect_feature"} 0)"));
    EXPECT_TRUE(Has(text, R"(vmescape_policy_generation{feature="odd"} 0)"));
    EXPECT_TRUE(Has(text, R"(vmescape_policy_refused{feature="odd"} 1)"));
}

}  // namespace
