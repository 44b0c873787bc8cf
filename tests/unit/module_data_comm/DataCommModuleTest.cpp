#include "DataCommModule.h"

#include "SampleAlarm.h"
#include "framework/Engine.h"
#include "framework/Message.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>

namespace {

using TestSupport::ReadText;

class DataCommModule : public testing::Test {
protected:
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
    Start("json:file:" + m_folder / "json" + ",text:file:" + m_folder / "text");
    Send("2", SampleDocument());
    m_engine->StopModules();
    EXPECT_EQ(ReadText(m_folder / "json"), SampleDocument() + '\n');
    EXPECT_NE(ReadText(m_folder / "text").find("  vm-01  shell  "), std::string::npos);
}

TEST_F(DataCommModule, WritesJsonToAFileUnlessToldOtherwise) {
    Start("file:" + m_folder / "alarms");
    Send("2", SampleDocument());
    m_engine->StopModules();
    EXPECT_EQ(ReadText(m_folder / "alarms"), SampleDocument() + '\n');
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

TEST_F(DataCommModule, RefusesToStartWithoutItsOutput) {
    EXPECT_THROW(Start("file:" + m_folder / "missing/alarms"), Poco::Exception);
    EXPECT_EQ(m_engine->FindTask("data_comm_report_task"), nullptr);
}

TEST_F(DataCommModule, RefusesAnOutputThatItDoesNotKnow) {
    EXPECT_THROW(Start("json:nowhere"), Poco::Exception);
    EXPECT_TRUE(m_log.Contains(
        "report.output(nowhere) is not understood, expected stdout, file:PATH, syslog, "
        "syslog:local:PATH, syslog:unix:PATH, syslog:tcp:HOST:PORT or webhook"));
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
