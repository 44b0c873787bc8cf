#include "ReportTask.h"

#include "ScriptedWriter.h"
#include "SinkBooks.h"
#include "TestPipe.h"
#include "framework/Engine.h"
#include "framework/Message.h"
#include "outputs/LineWriter.h"
#include "support/CapturedLog.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

namespace {

using Engine::AlarmFormatter;
using Engine::AlarmSink;
using Engine::LineWriter;

class ReportTask : public testing::Test {
protected:
    AlarmSink* AddSink(const TestPipe& pipe, const std::string& name) {
        auto sink =
            std::make_unique<AlarmSink>(std::make_unique<LineWriter>(pipe.WriteEnd(), name),
                                        AlarmFormatter(AlarmFormatter::Style::JSON, false), 4);
        AlarmSink* const result = sink.get();
        m_task->AddSink(std::move(sink));
        return result;
    }

    void Send() {
        m_engine->DeliverMessage("data_comm_report_task",
                                 std::make_shared<Framework::DataMessage>("2", "{}"));
    }

    TestSupport::CapturedLog m_log;
    TestPipe m_read;
    TestPipe m_asleep;
    Poco::AutoPtr<Framework::Engine> m_engine = new Framework::Engine;
    Poco::AutoPtr<Engine::ReportTask> m_task = new Engine::ReportTask;
};

TEST_F(ReportTask, IsAddressedByItsName) { EXPECT_EQ(m_task->name(), "data_comm_report_task"); }

TEST_F(ReportTask, IsNotHeldUpByASinkThatNobodyReads) {
    m_asleep.Fill();
    const AlarmSink* stuck = AddSink(m_asleep, "stuck");
    const AlarmSink* good = AddSink(m_read, "good");
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    for (std::uint64_t sent = 1; sent <= 100; ++sent) {
        Send();
        ASSERT_TRUE(TestSupport::WaitUntil([&] { return Written(*good) == sent; }));
    }
    EXPECT_EQ(Written(*stuck), 0U);
    EXPECT_GE(Dropped(*stuck), 95U);
    EXPECT_EQ(m_engine->UnRegisterTask("data_comm_report_task"), 0);
    EXPECT_EQ(Dropped(*stuck) + Failed(*stuck), 100U);
}

TEST_F(ReportTask, CountsAlarmsByClass) {
    const auto send = [this](const std::string& document) {
        const Framework::DataMessage message("2", document);
        EXPECT_EQ(m_task->HandleMsg(&message), 0);
    };
    send(R"({"event_classid":"vmescape_0001"})");
    send(R"({"event_classid":"vmescape_0001"})");
    send(R"({"event_classid":"vmescape_0003"})");
    send("no document");
    const SDK::Ledger books = SDK::OpenLedger::ReadAll().at(0);
    EXPECT_EQ(books.m_name, "detections");
    EXPECT_EQ(books.m_seen, 4U);
    EXPECT_TRUE(books.Balanced());
    EXPECT_EQ(books.m_kinds,
              (std::map<std::string, std::uint64_t>{
                  {"other", 1}, {"vmescape_0001", 2}, {"vmescape_0002", 0}, {"vmescape_0003", 1}}));
}

TEST_F(ReportTask, CountsNoMoreThanAFewClasses) {
    for (int i = 0; i < 100; ++i) {
        const Framework::DataMessage message("2",
                                             R"({"event_classid":")" + std::to_string(i) + "\"}");
        m_task->HandleMsg(&message);
    }
    const SDK::Ledger books = SDK::OpenLedger::ReadAll().at(0);
    EXPECT_LE(books.m_kinds.size(), 17U);
    EXPECT_EQ(books.m_seen, 100U);
}

TEST_F(ReportTask, LetsEachSinkReopenItsPlaceWhenItIsAskedTo) {
    ScriptedWriter::Place places[2];
    for (ScriptedWriter::Place& place : places) {
        m_task->AddSink(
            std::make_unique<AlarmSink>(std::make_unique<ScriptedWriter>(place),
                                        AlarmFormatter(AlarmFormatter::Style::JSON, false), 4));
        ASSERT_TRUE(TestSupport::WaitUntil([&] { return place.Prepared() == 1; }));
    }
    const Framework::DataMessage reopen(Framework::DataMessage::REOPEN, "");
    EXPECT_EQ(m_task->HandleMsg(&reopen), 0);
    for (ScriptedWriter::Place& place : places) {
        EXPECT_TRUE(TestSupport::WaitUntil([&] { return place.Prepared() == 2; }));
        EXPECT_TRUE(place.Taken().empty()) << "it is no alarm";
    }
    EXPECT_EQ(SDK::OpenLedger::ReadAll().at(0).m_seen, 0U);
    m_task = nullptr;  // before the places
}

/// An alarm of one machine.
std::string AlarmOf(const std::string& kind, const std::string& machine) {
    return R"({"event_classid":")" + kind + R"(","resource_info":{"vm_name":")" + machine + "\"}}";
}

TEST_F(ReportTask, CountsTheMachinesThatAlarmsNameEachOnceAClass) {
    const auto send = [this](const std::string& document) {
        const Framework::DataMessage message("2", document);
        EXPECT_EQ(m_task->HandleMsg(&message), 0);
    };
    send(AlarmOf("vmescape_0001", "vm-01"));
    send(AlarmOf("vmescape_0001", "vm-01"));
    send(AlarmOf("vmescape_0001", "vm-02"));
    send(AlarmOf("vmescape_0003", "vm-01"));
    send(AlarmOf("vmescape_0003", ""));
    send(R"({"event_classid":"vmescape_0003"})");
    EXPECT_EQ(SDK::OpenLedger::ReadAll().at(0).m_machines,
              (std::map<std::string, std::uint64_t>{
                  {"vmescape_0001", 2}, {"vmescape_0002", 0}, {"vmescape_0003", 1}}));
}

TEST_F(ReportTask, KeepsNoMoreThan4096MachinesOfAClassApartAndSaysSoOnce) {
    for (int i = 0; i < 4100; ++i) {
        const Framework::DataMessage message("2", AlarmOf("vmescape_0002", std::to_string(i)));
        m_task->HandleMsg(&message);
    }
    EXPECT_EQ(SDK::OpenLedger::ReadAll().at(0).m_machines.at("vmescape_0002"), 4096U);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_WARNING,
                          "Alarms of class(vmescape_0002) have named 4096 virtual machines, the "
                          "limit. Further ones are not counted as machines."),
              1U);
}

TEST_F(ReportTask, WithoutSinksTakesAlarmsAllTheSame) {
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    Send();
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return m_task->GetInbox()->Empty(); }));
    EXPECT_EQ(m_engine->UnRegisterTask("data_comm_report_task"), 0);
}

}  // namespace
