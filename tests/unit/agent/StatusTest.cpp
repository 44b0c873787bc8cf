#include "Status.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using Tasks = std::vector<Framework::Engine::TaskStatus>;

Tasks OneTask() {
    Framework::Engine::TaskStatus task;
    task.m_name = "qemu_cmd_detect_task";
    task.m_feature = "qemu_cmd_detect_feature";
    task.m_inboxDepth = 3;
    task.m_inboxCapacity = 1024;
    task.m_messagesAccepted = 70;
    task.m_messagesLost = 1;
    return {task};
}

SDK::Ledger AlarmBooks() {
    SDK::Ledger books;
    books.m_name = "alarms";
    books.m_by = "stdout";
    books.m_seen = 10;
    books.m_delivered = 6;
    books.m_waiting = 1;
    books.m_lost = {{"queue_full", 3}, {"not_written", 0}};
    books.m_kinds = {{"vmescape_0001", 6}};
    books.m_lastS = 86400;
    return books;
}

class Status : public testing::Test {
protected:
    void Take(const std::string& hash = "abc") {
        m_status.TakePolicy("f", "/p/f.json", R"({"hash":")" + hash + R"("})", 86400);
    }
    std::string State() const { return m_status.Document(OneTask(), {})["state"].asString(); }
    std::string Reason() const { return m_status.Document(OneTask(), {})["reasons"][0].asString(); }

    Agent::Status m_status{0};
};

TEST_F(Status, IsUpWhenAPolicyIsInForceAndAllTasksWork) {
    Take();
    const Json::Value document = m_status.Document(OneTask(), {});
    EXPECT_EQ(document["state"].asString(), "up");
    EXPECT_TRUE(document["reasons"].empty());
    EXPECT_EQ(document["version"].asString(), VMESCAPE_VERSION);
    EXPECT_EQ(document["pid"].asInt(), ::getpid());
    EXPECT_EQ(document["started"].asString(), "1970-01-01T00:00:00Z");
}

TEST_F(Status, IsDegradedWithoutAPolicy) {
    EXPECT_EQ(State(), "degraded");
    EXPECT_EQ(Reason(), "No policy is in force, nothing is detected");
}

TEST_F(Status, TellsHowManyVirtualMachinesThereAre) {
    EXPECT_EQ(m_status.Document({}, {})["machines"].asUInt(), 0U);
    const Json::Value document = m_status.Document({}, {}, 7);
    EXPECT_EQ(document["machines"].asUInt(), 7U);
    const std::string text = Agent::Status::ToText(document);
    EXPECT_NE(text.find("\nvirtual machines: 7\n"), std::string::npos) << text;
}

TEST_F(Status, ShowsEachTask) {
    const Json::Value task = m_status.Document(OneTask(), {})["tasks"][0];
    EXPECT_EQ(task["name"].asString(), "qemu_cmd_detect_task");
    EXPECT_EQ(task["state"].asString(), "up");
    EXPECT_EQ(task["waiting"].asInt(), 3);
    EXPECT_EQ(task["capacity"].asInt(), 1024);
    EXPECT_EQ(task["received"].asInt(), 70);
    EXPECT_EQ(task["lost"].asInt(), 1);
}

TEST_F(Status, ShowsBooksByReasonAndTheLastAlarm) {
    Take();
    const Json::Value document = m_status.Document({}, {SDK::Ledger(), AlarmBooks()});
    EXPECT_EQ(document["state"].asString(), "up");
    EXPECT_EQ(document["last_alarm"].asString(), "1970-01-02T00:00:00Z");
    const Json::Value& books = document["books"][1];
    EXPECT_EQ(books["name"].asString(), "alarms");
    EXPECT_EQ(books["by"].asString(), "stdout");
    EXPECT_EQ(books["seen"].asUInt64(), 10U);
    EXPECT_EQ(books["delivered"].asUInt64(), 6U);
    EXPECT_EQ(books["waiting"].asUInt64(), 1U);
    EXPECT_EQ(books["lost"]["queue_full"].asUInt64(), 3U);
    EXPECT_TRUE(books["filtered"].isObject());
}

TEST_F(Status, ShowsTheLatencyOfBooksThatHaveOneByBucketInSeconds) {
    SDK::Ledger books;
    EXPECT_FALSE(m_status.Document({}, {books})["books"][0].isMember("latency"));
    books.m_latency.emplace();
    books.m_latency->Add(std::chrono::milliseconds(2));
    books.m_latency->Add(std::chrono::seconds(11));
    const Json::Value latency = m_status.Document({}, {books})["books"][0]["latency"];
    ASSERT_EQ(latency["bounds"].size(), 12U);
    ASSERT_EQ(latency["counts"].size(), 13U);
    EXPECT_DOUBLE_EQ(latency["bounds"][0].asDouble(), 0.00025);
    EXPECT_DOUBLE_EQ(latency["bounds"][3].asDouble(), 0.002);
    EXPECT_DOUBLE_EQ(latency["bounds"][11].asDouble(), 10);
    EXPECT_EQ(latency["counts"][3].asUInt64(), 1U);
    EXPECT_EQ(latency["counts"][12].asUInt64(), 1U);
    EXPECT_DOUBLE_EQ(latency["sum"].asDouble(), 11.002);
}

TEST_F(Status, ShowsHowManyMachinesTheAlarmsNamed) {
    SDK::Ledger books;
    books.m_machines = {{"vmescape_0001", 3}};
    const Json::Value document = m_status.Document({}, {books});
    EXPECT_EQ(document["books"][0]["machines"]["vmescape_0001"].asUInt64(), 3U);
    EXPECT_NE(Agent::Status::ToText(document).find("\n    machines: vmescape_0001 3\n"),
              std::string::npos);
    EXPECT_EQ(Agent::Status::ToText(m_status.Document({}, {SDK::Ledger()})).find("    machines:"),
              std::string::npos);
}

TEST_F(Status, AsTextTellsWithinWhatTimeHalfAndAlmostAllWereDelivered) {
    SDK::Ledger books;
    books.m_latency.emplace();
    const auto text = [&] { return Agent::Status::ToText(m_status.Document({}, {books})); };
    EXPECT_EQ(text().find("latency"), std::string::npos) << "of nothing there is nothing to tell";
    const auto add = [&](int count, SDK::LatencyHistogram::Duration latency) {
        for (int i = 0; i < count; ++i) {
            books.m_latency->Add(latency);
        }
    };
    add(50, std::chrono::microseconds(1));
    add(49, std::chrono::milliseconds(4));
    add(1, std::chrono::seconds(9));
    EXPECT_NE(text().find("\n    latency: half within 0.25 ms, 99 % within 5 ms\n"),
              std::string::npos)
        << text();
    add(1, std::chrono::seconds(9));
    EXPECT_NE(text().find("half within 5 ms, 99 % within 10 s\n"), std::string::npos) << text();
    add(200, std::chrono::seconds(11));
    EXPECT_NE(text().find("half beyond 10 s, 99 % beyond 10 s\n"), std::string::npos) << text();
}

TEST_F(Status, IsDegradedByTheTroubleOfACollectorOrAnOutput) {
    Take();
    SDK::Ledger books = AlarmBooks();
    books.m_trouble = "Output(stdout) cannot be written: Broken pipe";
    const Json::Value document = m_status.Document({}, {books});
    EXPECT_EQ(document["state"].asString(), "degraded");
    EXPECT_EQ(document["reasons"][0].asString(), books.m_trouble);
}

TEST_F(Status, ShowsAtMost64PoliciesThatWereNeverInForceAndCountsTheRest) {
    Take();
    for (int i = 0; i < 100; ++i) {
        m_status.RefusePolicy("a junk file " + std::to_string(i), "/p/x", "why");
    }
    const Json::Value document = m_status.Document({}, {});
    EXPECT_EQ(document["policies"].size(), 65U);
    EXPECT_EQ(document["policies"][64]["feature"].asString(), "f");
    EXPECT_EQ(document["reasons"].size(), 65U);
    EXPECT_EQ(document["reasons"][64].asString(),
              "36 more policies are refused, the log names them");
    for (int i = 0; i < 100; ++i) {
        m_status.ForgetRefusal("a junk file " + std::to_string(i));
    }
    EXPECT_EQ(State(), "up");
}

TEST_F(Status, ShortensWhatSomebodyChoseToBeLong) {
    Take(std::string(10000, 'h'));
    m_status.RefusePolicy("f", "/p", std::string(10000, 'w'));
    const Json::Value document = m_status.Document({}, {});
    EXPECT_EQ(document["policies"][0]["hash"].asString(), std::string(300, 'h') + "...");
    EXPECT_EQ(document["policies"][0]["refused"].asString(), std::string(300, 'w') + "...");
    EXPECT_EQ(document["reasons"][0].asString().length(), 303U);
}

TEST_F(Status, AsTextShowsNoControlCharactersOfFileNames) {
    m_status.RefusePolicy("\x1b]0;owned\a", "/p/x", "why");
    const std::string text = Agent::Status::ToText(m_status.Document({}, {}));
    EXPECT_EQ(text.find_first_of("\x1b\a"), std::string::npos) << text;
}

TEST_F(Status, AsTextNamesTheReasonsOfWhatDidNotArrive) {
    SDK::Ledger books = AlarmBooks();
    books.m_by = "file:/tmp/\x1b[2J";
    const std::string text = Agent::Status::ToText(m_status.Document({}, {books}));
    EXPECT_NE(text.find("alarms (file:/tmp/?[2J)                       10           6           1\n"
                        "    kinds: vmescape_0001 6\n"
                        "    filtered: 0\n"
                        "    lost: queue_full 3\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\nlast alarm: 1970-01-02T00:00:00Z\n"), std::string::npos) << text;
    EXPECT_NE(Agent::Status::ToText(m_status.Document({}, {})).find("\nlast alarm: none yet\n"),
              std::string::npos);
}

TEST_F(Status, AsTextSaysAtTheBookWhichPartIsInTrouble) {
    SDK::Ledger books = AlarmBooks();
    EXPECT_EQ(Agent::Status::ToText(m_status.Document({}, {books})).find("    degraded:"),
              std::string::npos);
    books.m_trouble = "Output(stdout) cannot be written";
    const std::string text = Agent::Status::ToText(m_status.Document({}, {books}));
    EXPECT_NE(text.find("    degraded: Output(stdout) cannot be written\n    filtered: 0\n"),
              std::string::npos)
        << text;
}

TEST_F(Status, ShowsATaskThatDoesNotWorkAsDownAndSaysWhy) {
    Take();
    EXPECT_TRUE(m_status.TakeStuckTasks({"Task(qemu_cmd_detect_task) has ended"}));
    EXPECT_FALSE(m_status.TakeStuckTasks({"Task(qemu_cmd_detect_task) has ended"}));
    EXPECT_EQ(State(), "degraded");
    EXPECT_EQ(Reason(), "Task(qemu_cmd_detect_task) has ended");
    const Json::Value down = m_status.Document(OneTask(), {})["tasks"][0];
    EXPECT_EQ(down["state"].asString(), "down");
    EXPECT_EQ(down["why"].asString(), "Task(qemu_cmd_detect_task) has ended");
    EXPECT_TRUE(m_status.TakeStuckTasks({}));
    EXPECT_EQ(State(), "up");
    EXPECT_EQ(m_status.Document(OneTask(), {})["tasks"][0]["why"].asString(), "");
}

TEST_F(Status, CountsTheGenerationsOfAPolicyAndShowsItsHash) {
    Take("first");
    Take("second");
    const Json::Value policy = m_status.Document({}, {})["policies"][0];
    EXPECT_EQ(policy["feature"].asString(), "f");
    EXPECT_EQ(policy["file"].asString(), "/p/f.json");
    EXPECT_EQ(policy["generation"].asInt(), 2);
    EXPECT_EQ(policy["hash"].asString(), "second");
    EXPECT_EQ(policy["since"].asString(), "1970-01-02T00:00:00Z");
}

TEST_F(Status, ShowsADetectionThatItsPolicySwitchesOff) {
    const auto table = [this] { return Agent::Status::ToText(m_status.Document({}, {})); };
    Take();
    EXPECT_EQ(m_status.Document({}, {})["policies"][0]["enabled"], true);
    EXPECT_NE(table().find("f                         in force             1  "),
              std::string::npos);
    m_status.TakePolicy("f", "/p/f.json", R"({"enabled":false})", 86400);
    EXPECT_EQ(m_status.Document({}, {})["policies"][0]["enabled"], false);
    EXPECT_NE(table().find("f                         off                  2  "), std::string::npos)
        << table();
    EXPECT_EQ(State(), "up");
}

TEST_F(Status, ForgetsARefusedPolicyThatWasNeverInForceWhenItsFileIsGone) {
    Take();
    m_status.RefusePolicy("g", "/p/g.json", "expected JSON");
    EXPECT_EQ(m_status.Document({}, {})["policies"].size(), 2U);
    m_status.ForgetRefusal("g");
    m_status.ForgetRefusal("never heard of");
    EXPECT_EQ(m_status.Document({}, {})["policies"].size(), 1U);
    EXPECT_EQ(State(), "up");
}

TEST_F(Status, IsDegradedWhileALaterPolicyIsRefused) {
    Take();
    m_status.RefusePolicy("f", "/p/f.json", "expected JSON");
    EXPECT_EQ(State(), "degraded");
    EXPECT_EQ(Reason(), "Policy(f) is refused: expected JSON");
    EXPECT_EQ(m_status.Document({}, {})["policies"][0]["generation"].asInt(), 1);
    m_status.ForgetRefusal("f");
    EXPECT_EQ(State(), "up");
}

TEST_F(Status, ReadsAsATable) {
    Take("a\x1b[31m\n");
    m_status.RefusePolicy("f", "/p/f.json", "why\x07");
    const std::string text = Agent::Status::ToText(m_status.Document(OneTask(), {}));
    EXPECT_NE(text.find(", since 1970-01-01T00:00:00Z: degraded\n  Policy(f) is refused: why?\n"),
              std::string::npos)
        << text;
    EXPECT_NE(
        text.find("qemu_cmd_detect_task      up              3/1024          70           1\n"),
        std::string::npos)
        << text;
    EXPECT_NE(text.find("f                         refused              1  "), std::string::npos)
        << text;
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
}

/// The answer of "status" that the document for operators shows, without its beginning and without
/// the lines that stand for others.
std::vector<std::string> DocumentedAnswer() {
    std::istringstream lines(TestSupport::ReadText(SOURCE_FOLDER "/docs/agent.md"));
    std::vector<std::string> answer;
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        inside = inside || line == "    $ vmescape-agent status";
        if (inside && line.starts_with("The ")) {
            break;
        }
        if (inside && line.length() > 4 && line.find("…") == std::string::npos) {
            answer.push_back(line.substr(4));
        }
    }
    return answer;
}

SDK::Ledger DocumentedBook(const char* name, const char* by, std::uint64_t seen,
                           std::uint64_t delivered) {
    SDK::Ledger books;
    books.m_name = name;
    books.m_by = by;
    books.m_seen = seen;
    books.m_delivered = delivered;
    return books;
}

/// Half of a hundred within a time, almost all within another one.
void TakeTimes(SDK::Ledger& books, std::chrono::microseconds half, std::chrono::microseconds most) {
    books.m_latency.emplace();
    for (int i = 0; i < 100; ++i) {
        books.m_latency->Add(i < 50 ? half : most);
    }
}

TEST_F(Status, IsShownInTheDocumentAsItReads) {
    using std::chrono::microseconds;
    Framework::Engine::TaskStatus task;
    task.m_inboxCapacity = 1024;
    task.m_name = "procs_real_task";
    task.m_messagesAccepted = 9;
    Tasks tasks{task};
    task.m_name = "qemu_cmd_detect_task";
    task.m_messagesAccepted = 40713;
    tasks.push_back(task);
    SDK::Ledger processes = DocumentedBook("process_events", "bpf", 91870, 40713);
    processes.m_filtered = {{"repeated", 12}, {"unwanted", 51145}};
    processes.m_kinds = {{"exec", 40713}, {"exit", 24450}, {"fork", 26695}};
    TakeTimes(processes, microseconds(900), microseconds(4000));
    SDK::Ledger detections = DocumentedBook("detections", "", 3, 3);
    detections.m_kinds = {{"vmescape_0001", 2}, {"vmescape_0002", 0}, {"vmescape_0003", 1}};
    detections.m_machines = {{"vmescape_0001", 1}, {"vmescape_0002", 0}, {"vmescape_0003", 1}};
    SDK::Ledger alarms = DocumentedBook("alarms", "/var/log/vmescape/alarms.jsonl", 3, 3);
    alarms.m_lastS = 1795255333;
    TakeTimes(alarms, microseconds(400), microseconds(900));
    Agent::Status status(1795252364);
    status.TakePolicy("qemu_cmd_detect_feature", "/p", R"({"hash":"demo"})", 1795252364);
    status.RefusePolicy("qemu_cmd_detect_feature", "/p", "expected JSON");
    Json::Value document = status.Document(tasks, {processes, detections, alarms}, 12);
    document["version"] = "0.1.0";
    document["pid"] = 812;
    const std::string text = '\n' + Agent::Status::ToText(document);
    const std::vector<std::string> answer = DocumentedAnswer();
    EXPECT_GE(answer.size(), 22U);
    for (std::size_t i = 1, at = 0; i < answer.size(); ++i) {
        const std::size_t found = text.find('\n' + answer[i] + '\n', at);
        ASSERT_NE(found, std::string::npos) << answer[i] << "\n\n" << text;
        at = found;
    }
}

}  // namespace
