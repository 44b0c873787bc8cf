#include "MetricsText.h"

#include "Status.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <vector>

namespace {

/// A status as the agent tells it.
Json::Value OneOfEach() {
    Agent::Status status(60);
    status.TakePolicy("qemu_cmd_detect_feature", "/p", "{}", 86400);
    status.RefusePolicy("odd", "/p", "why");
    Framework::Engine::TaskStatus task;
    task.m_name = "procs_real_task";
    task.m_inboxDepth = 3;
    task.m_inboxCapacity = 1024;
    task.m_messagesAccepted = 70;
    task.m_messagesLost = 1;
    SDK::Ledger books;
    books.m_name = "alarms";
    books.m_by = "file:/a \"b\"\\";
    books.m_seen = 5000000000;
    books.m_delivered = 4999999996;
    books.m_waiting = 1;
    books.m_filtered = {{"own", 1}};
    books.m_lost = {{"queue_full", 2}};
    books.m_kinds = {{"vmescape_0001", 4}};
    books.m_machines = {{"vmescape_0001", 2}};
    books.m_latency.emplace();
    books.m_latency->Add(std::chrono::microseconds(500));
    books.m_latency->Add(std::chrono::milliseconds(250));
    books.m_latency->Add(std::chrono::seconds(11));
    books.m_lastS = 86400;
    Json::Value document = status.Document({task}, {books});
    document["machines"] = 7;
    return document;
}

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
    const std::string text = Agent::ToMetrics(OneOfEach());
    EXPECT_TRUE(Has(text, "vmescape_up 1"));
    EXPECT_TRUE(Has(text, "vmescape_degraded 1"));
    EXPECT_TRUE(Has(text, "vmescape_build_info{version=\"" VMESCAPE_VERSION "\"} 1"));
    EXPECT_TRUE(Has(text, "vmescape_start_time_seconds 60"));
    EXPECT_TRUE(Has(text, "vmescape_last_alarm_time_seconds 86400"));
}

TEST(Metrics, TellOfEachTask) {
    const std::string text = Agent::ToMetrics(OneOfEach());
    EXPECT_TRUE(Has(text, R"(vmescape_task_up{task="procs_real_task"} 1)"));
    EXPECT_TRUE(Has(text, R"(vmescape_task_inbox_messages{task="procs_real_task"} 3)"));
    EXPECT_TRUE(Has(text, R"(vmescape_task_inbox_capacity{task="procs_real_task"} 1024)"));
    EXPECT_TRUE(Has(text, R"(vmescape_task_messages_total{task="procs_real_task"} 70)"));
    EXPECT_TRUE(Has(text, R"(vmescape_task_messages_lost_total{task="procs_real_task"} 1)"));
}

TEST(Metrics, TellTheBooksByReasonAndEscapeWhatLabelsCannotHold) {
    const std::string text = Agent::ToMetrics(OneOfEach());
    const std::string book = R"({book="alarms",by="file:/a \"b\"\\")";
    EXPECT_TRUE(Has(text, "vmescape_seen_total" + book + "} 5000000000")) << text;
    EXPECT_TRUE(Has(text, "vmescape_delivered_total" + book + "} 4999999996"));
    EXPECT_TRUE(Has(text, "vmescape_waiting" + book + "} 1"));
    EXPECT_TRUE(Has(text, "vmescape_filtered_total" + book + R"(,reason="own"} 1)"));
    EXPECT_TRUE(Has(text, "vmescape_lost_total" + book + R"(,reason="queue_full"} 2)"));
    EXPECT_TRUE(Has(text, "vmescape_kinds_total" + book + R"(,kind="vmescape_0001"} 4)"));
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
    Json::Value status = OneOfEach();
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
    const std::string text = Agent::ToMetrics(OneOfEach());
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
    std::istringstream lines(Agent::ToMetrics(OneOfEach()));
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
    const std::string text = Agent::ToMetrics(OneOfEach());
    EXPECT_TRUE(Has(text, R"(vmescape_policy_generation{feature="qemu_cmd_detect_feature"} 1)"));
    EXPECT_TRUE(Has(text, R"(vmescape_policy_refused{feature="qemu_cmd_detect_feature"} 0)"));
    EXPECT_TRUE(Has(text, R"(vmescape_policy_generation{feature="odd"} 0)"));
    EXPECT_TRUE(Has(text, R"(vmescape_policy_refused{feature="odd"} 1)"));
}

TEST(Metrics, AreThoseThatTheAlertRulesAskFor) {
    const std::string rules =
        TestSupport::ReadText(SOURCE_FOLDER "/packaging/prometheus-alerts.yml");
    const std::string text = Agent::ToMetrics(OneOfEach());
    const std::regex name("vmescape_[a-z_]+");
    int names = 0;
    for (std::sregex_iterator found(rules.begin(), rules.end(), name), end; found != end; ++found) {
        EXPECT_NE(text.find("\n# TYPE " + found->str() + ' '), std::string::npos) << found->str();
        ++names;
    }
    EXPECT_GE(names, 5);
}

}  // namespace
