#include "DataCommModule.h"

#include "SampleAlarm.h"
#include "WebServer.h"
#include "framework/Engine.h"
#include "framework/Message.h"
#include "support/CapturedLog.h"
#include "support/KafkaCluster.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <map>

namespace {

using TestSupport::ReadText;

class DataCommModule : public testing::Test {
protected:
    void SetUp() override {
        m_engine->config().setString("report.spool.folder", m_folder / "spool");
    }

    void Start(const std::string& output) {
        m_engine->config().setString("report.output", output);
        m_engine->addSubsystem(new Engine::DataCommModule);
        m_engine->StartModules();
    }

    int Send(const std::string& type, const std::string& text) {
        return m_engine->DeliverMessage("data_comm_report_task",
                                        std::make_shared<Framework::DataMessage>(type, text));
    }

    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_folder;
    Poco::AutoPtr<Framework::Engine> m_engine = new Framework::Engine;
};

TEST_F(DataCommModule, IsKnownByItsName) {
    Start("file:" + m_folder / "alarms");
    EXPECT_NE(m_engine->FindTask("data_comm_report_task"), nullptr);
    EXPECT_STREQ(Engine::DataCommModule().name(), "data_comm_module");
}

TEST_F(DataCommModule, WritesWhatWasSentBeforeTheStop) {
    Start("file:" + m_folder / "alarms");
    std::string expected;
    for (int i = 0; i < 300; ++i) {
        const std::string document = "{\"number\":" + std::to_string(i) + "}";
        ASSERT_EQ(Send("2", document), 0);
        expected += document + '\n';
    }
    m_engine->StopModules();
    EXPECT_EQ(ReadText(m_folder / "alarms"), expected);
}

TEST_F(DataCommModule, GivesEveryAlarmToEveryOutputInItsOwnFormat) {
    Start("json:file:" + m_folder / "json" + ",text:file:" + m_folder / "text" +
          ",ocsf:file:" + m_folder / "ocsf" + ",ecs:file:" + m_folder / "ecs");
    Send("2", SampleDocument());
    m_engine->StopModules();
    EXPECT_EQ(ReadText(m_folder / "json"), SampleDocument() + '\n');
    EXPECT_NE(ReadText(m_folder / "text").find("  vm-01  shell  "), std::string::npos);
    EXPECT_EQ(ParseDocument(ReadText(m_folder / "ocsf"))["class_uid"], 2004);
    EXPECT_EQ(ParseDocument(ReadText(m_folder / "ecs"))["event"]["kind"], "alert");
}

TEST_F(DataCommModule, WritesTheFormatThatItIsToldTo) {
    m_engine->config().setString("report.format", "ocsf");
    Start("file:" + m_folder / "ocsf");
    Send("2", SampleDocument());
    m_engine->StopModules();
    m_engine->config().setString("report.format", "ecs");
    m_engine->config().setString("report.output", "file:" + m_folder / "ecs");
    m_engine->StartModules();
    Send("2", SampleDocument());
    m_engine->StopModules();
    const Json::Value finding = ParseDocument(ReadText(m_folder / "ocsf"));
    const Json::Value record = ParseDocument(ReadText(m_folder / "ecs"));
    EXPECT_EQ(finding["type_uid"], 200401);
    EXPECT_EQ(record["ecs"]["version"], "8.11.0");
    // Both tell of this host.
    EXPECT_NE(finding["device"]["boot_uid"].asString(), "");
    EXPECT_EQ(finding["device"]["boot_uid"], record["host"]["boot"]["id"]);
    EXPECT_EQ(finding["device"]["hostname"], record["host"]["name"]);
    EXPECT_EQ(record["agent"]["version"], VMESCAPE_VERSION);
}

TEST_F(DataCommModule, WritesJsonToAFileUnlessToldOtherwise) {
    Start("file:" + m_folder / "alarms");
    Send("2", SampleDocument());
    m_engine->StopModules();
    EXPECT_EQ(ReadText(m_folder / "alarms"), SampleDocument() + '\n');
}

TEST_F(DataCommModule, PostsJsonToTheWebhookUnlessToldOtherwise) {
    WebServer server([](const WebServer::Request&) { return WebServer::Reply{}; });
    m_engine->config().setString("report.webhook.url", server.Url());
    Start("webhook,text:webhook");
    Send("2", SampleDocument());
    m_engine->StopModules();
    std::map<std::string, std::string> bodies;
    for (WebServer::Request& request : server.Requests()) {
        bodies[request.m_headers["Content-Type"]] = request.m_body;
    }
    EXPECT_EQ(bodies["application/json"], '[' + SampleDocument() + "]\n");
    EXPECT_NE(bodies["text/plain; charset=utf-8"].find("  vm-01  shell  "), std::string::npos);
}

TEST_F(DataCommModule, RefusesToStartAWebhookWithoutAnAddress) {
    EXPECT_THROW(Start("webhook"), Poco::Exception);
    EXPECT_TRUE(m_log.Contains("report.webhook.url is not understood, expected "));
}

TEST_F(DataCommModule, WritesTextAndColoursWhenToldTo) {
    m_engine->config().setString("report.format", "text");
    m_engine->config().setString("report.color", "always");
    Start("file:" + m_folder / "alarms");
    Send("2", SampleDocument());
    m_engine->StopModules();
    EXPECT_NE(ReadText(m_folder / "alarms").find("\x1b[1mvm-01\x1b[0m"), std::string::npos);
}

TEST_F(DataCommModule, PassesOnNothingButAlarms) {
    Start("file:" + m_folder / "alarms");
    Send("1", "{}");
    m_engine->DeliverMessage("data_comm_report_task",
                             std::make_shared<Framework::Message>("procs_message"));
    m_engine->StopModules();
    EXPECT_EQ(ReadText(m_folder / "alarms"), "");
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_WARNING,
                          "A message(type:data_message) is no alarm and is dropped"),
              1U);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_WARNING,
                          "A message(type:procs_message) is no alarm and is dropped"),
              1U);
}

TEST_F(DataCommModule, RotatesFilesAsItIsTold) {
    m_engine->config().setString("report.file.megabytes", "1");
    m_engine->config().setString("report.file.keep", "2");
    Start("file:" + m_folder / "alarms");
    // Three of them fit into a mebibyte.
    const std::string rest(300 << 10, 'x');
    for (int i = 0; i < 10; ++i) {
        Send("2", std::to_string(i) + rest);
    }
    m_engine->StopModules();
    const auto first = [this](const std::string& file) {
        return ReadText(m_folder / file).substr(0, 1);
    };
    EXPECT_EQ(first("alarms") + first("alarms.1") + first("alarms.2"), "963");
    EXPECT_FALSE(std::filesystem::exists(m_folder / "alarms.3"));
}

TEST_F(DataCommModule, OpensItsFilesAnewWhenItIsAskedTo) {
    Start("file:" + m_folder / "alarms");
    std::filesystem::rename(m_folder / "alarms", m_folder / "moved");
    Send(Framework::DataMessage::REOPEN, "");
    EXPECT_TRUE(
        TestSupport::WaitUntil([&] { return std::filesystem::exists(m_folder / "alarms"); }));
    m_engine->StopModules();
}

TEST_F(DataCommModule, RefusesToStartWithoutItsOutput) {
    EXPECT_THROW(Start("file:" + m_folder / "missing/alarms"), Poco::Exception);
    EXPECT_EQ(m_engine->FindTask("data_comm_report_task"), nullptr);
}

TEST_F(DataCommModule, RefusesAnOutputThatItDoesNotKnow) {
    EXPECT_THROW(Start("json:nowhere"), Poco::Exception);
    EXPECT_TRUE(
        m_log.Contains("report.output(nowhere) is not understood, expected stdout, file:PATH, "
                       "journald, syslog, "
                       "syslog:local:PATH, syslog:unix:PATH, syslog:tcp:HOST:PORT, webhook or "
                       "kafka"));
}

TEST_F(DataCommModule, HandsAlarmsToKafkaInTheFormatThatTheOutputNames) {
    if (const std::string missing = TestSupport::KafkaCluster::Missing(); !missing.empty()) {
        GTEST_SKIP() << missing;
    }
    TestSupport::KafkaCluster cluster("vmescape-alarms");
    m_engine->config().setString("report.kafka.brokers", cluster.Brokers());
    Start("text:kafka");
    Send("2", SampleDocument());
    const auto records = cluster.Read(1);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_NE(records[0].m_value.find("  vm-01  shell  "), std::string::npos);
    m_engine->StopModules();
}

TEST_F(DataCommModule, RefusesKafkaWithoutBrokersAndWithPropertiesThatAreWrong) {
    if (const std::string missing = TestSupport::KafkaCluster::Missing(); !missing.empty()) {
        GTEST_SKIP() << missing;
    }
    EXPECT_THROW(Start("kafka"), Poco::Exception);
    EXPECT_TRUE(m_log.Contains("Output(kafka) cannot be had: report.kafka.brokers is not set"));
    m_engine->config().setString("report.kafka.brokers", "127.0.0.1:1");
    m_engine->config().setString("report.kafka.properties_file",
                                 m_folder.Write("properties", "one\n"));
    ::chmod((m_folder / "properties").c_str(), S_IRUSR | S_IWUSR);
    EXPECT_THROW(m_engine->StartModules(), Poco::Exception);
    EXPECT_TRUE(m_log.Contains("Output(kafka) cannot be had: " + m_folder / "properties" +
                               ":1: expected NAME=VALUE"));
}

TEST_F(DataCommModule, RefusesToStartWithoutTheSpoolThatAnOutputShouldHave) {
    if (const std::string missing = TestSupport::KafkaCluster::Missing(); !missing.empty()) {
        GTEST_SKIP() << missing;
    }
    m_engine->config().setString("report.kafka.brokers", "127.0.0.1:1");
    m_engine->config().setString("report.spool.folder", "/proc/nowhere");
    EXPECT_THROW(Start("kafka"), Poco::Exception);
    EXPECT_TRUE(
        m_log.Contains("The spool of output(kafka) cannot be had: folder(/proc/nowhere): "));
}

TEST_F(DataCommModule, GivesTwoOutputsOfAKindASpoolEach) {
    if (const std::string missing = TestSupport::KafkaCluster::Missing(); !missing.empty()) {
        GTEST_SKIP() << missing;
    }
    m_engine->config().setString("report.kafka.brokers", "127.0.0.1:1");
    Start("json:kafka,text:kafka");
    m_engine->StopModules();
    EXPECT_TRUE(std::filesystem::exists(m_folder / "spool/kafka.lock"));
    EXPECT_TRUE(std::filesystem::exists(m_folder / "spool/kafka-2.lock"));
}

TEST_F(DataCommModule, KeepsAlarmsInMemoryWhereThereIsToBeNoSpool) {
    if (const std::string missing = TestSupport::KafkaCluster::Missing(); !missing.empty()) {
        GTEST_SKIP() << missing;
    }
    m_engine->config().setString("report.kafka.brokers", "127.0.0.1:1");
    m_engine->config().setString("report.spool.folder", "");
    Start("kafka");
    Send("2", SampleDocument());
    m_engine->StopModules();
    EXPECT_TRUE(m_log.Contains("Output(kafka) ends: 0 alarms written, 0 dropped, 1 failed"));
}

TEST_F(DataCommModule, NamesAlarmsOnDiskForAnOutputThatIsNotConfigured) {
    std::filesystem::create_directory(m_folder / "spool");
    WebServer server([](const WebServer::Request&) { return WebServer::Reply{}; });
    m_engine->config().setString("report.webhook.url", server.Url());
    for (const char* file : {"kafka.7.jsonl", "kafka.8.jsonl", "webhook.1.jsonl"}) {
        m_folder.Write(std::string("spool/") + file, SampleDocument() + '\n');
    }
    Start("webhook");
    m_engine->StopModules();
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_WARNING,
                          "Spool file(" + m_folder / "spool/kafka.7.jsonl" +
                              "), of 2, holds alarms for output(kafka), which is not configured. "
                              "They are sent when it is configured again; delete what is not "
                              "wanted any more."),
              1U);
    EXPECT_FALSE(m_log.Contains("holds alarms for output(webhook)"));
    EXPECT_EQ(ReadText(m_folder / "spool/kafka.7.jsonl"), SampleDocument() + '\n');
}

TEST_F(DataCommModule, StartsAgainAfterItsStop) {
    Start("file:" + m_folder / "alarms");
    m_engine->StopModules();
    m_engine->StartModules();
    Send("2", "{}");
    m_engine->StopModules();
    EXPECT_EQ(ReadText(m_folder / "alarms"), "{}\n");
}

}  // namespace
