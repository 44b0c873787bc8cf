#include "ProcessCollector.h"

#include "ScriptedSource.h"
#include "support/CapturedLog.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

namespace {

using namespace ProcessCollect;
using Engine::ProcsMessage;
using TestSupport::CapturedLog;

// No process of this host has it: pid_max is at most 2^22.
constexpr int kPid = 1 << 23;

class ProcessCollectorTest : public testing::Test {
protected:
    ProcessCollectorTest() {
        auto source = std::make_unique<ScriptedSource>();
        m_source = source.get();
        m_collector =
            std::make_unique<ProcessCollector>(std::move(source), ProcessCollector::Limits{100, 4});
    }

    void Subscribe() {
        for (const unsigned int type :
             {ProcsMessage::FORK, ProcsMessage::EXEC, ProcsMessage::EXIT}) {
            ASSERT_TRUE(m_collector->Subscribe(type, m_inbox));
        }
    }
    /// Flags and pids of what the subscriber got.
    std::vector<std::pair<unsigned int, int>> Take() {
        std::vector<std::shared_ptr<Framework::Message>> messages;
        m_inbox->Receive(messages, 100);
        std::vector<std::pair<unsigned int, int>> events;
        for (const auto& message : messages) {
            const auto& event = dynamic_cast<const ProcsMessage&>(*message);
            events.emplace_back(event.GetProcFlag(), event.GetProcPid());
        }
        return events;
    }

    using Events = std::vector<std::pair<unsigned int, int>>;

    CapturedLog m_log;
    std::shared_ptr<Framework::Inbox> m_inbox = std::make_shared<Framework::Inbox>("reader", 64);
    ScriptedSource* m_source = nullptr;
    std::unique_ptr<ProcessCollector> m_collector;
};

TEST_F(ProcessCollectorTest, KnowsTheHostAfterItsStartAndSaysSo) {
    ASSERT_TRUE(m_collector->Start());
    SDK::ProcessUtils::procRecord record;
    ASSERT_TRUE(m_collector->Lookup(::getpid(), record));
    EXPECT_EQ(record.m_status.m_ppid, ::getppid());
    std::map<int, std::shared_ptr<ProcessCollector::Info>> procs;
    m_collector->Snapshot(procs);
    EXPECT_EQ(procs.count(::getpid()), 1U);
    EXPECT_TRUE(m_log.Contains("Process events come from source(script), "));
}

TEST_F(ProcessCollectorTest, HasNothingToTellBeforeItsStart) {
    std::map<int, std::shared_ptr<ProcessCollector::Info>> procs;
    m_collector->Snapshot(procs);
    EXPECT_TRUE(procs.empty());
    m_source->Add(ProcsMessage::FORK, kPid, 1, 5);
    SDK::ProcessUtils::procRecord record;
    EXPECT_FALSE(m_collector->Lookup(kPid, record));
}

TEST_F(ProcessCollectorTest, PassesEventsOnInTheirOrder) {
    ASSERT_TRUE(m_collector->Start());
    Subscribe();
    m_source->Add(ProcsMessage::FORK, kPid, 1, 5);
    m_source->Add(ProcsMessage::EXEC, kPid, 1, 5);
    m_source->Add(ProcsMessage::EXIT, kPid, 0, 5);
    EXPECT_EQ(m_collector->Pass(), 2);
    EXPECT_EQ(Take(), (Events{{1, kPid}, {2, kPid}, {3, kPid}}));
    EXPECT_TRUE(m_collector->GetCounters().Balanced());
    EXPECT_EQ(m_collector->Pass(), 200);
}

TEST_F(ProcessCollectorTest, TellsTheForkThatWasNotTold) {
    ASSERT_TRUE(m_collector->Start());
    Subscribe();
    m_source->Add(ProcsMessage::EXEC, kPid, 1, 5);
    m_collector->Pass();
    EXPECT_EQ(Take(), (Events{{1, kPid}, {2, kPid}}));
}

TEST_F(ProcessCollectorTest, AnswersWithWhatTheSourceHasToldByNow) {
    ASSERT_TRUE(m_collector->Start());
    // Younger than this process, whose real start the table knows.
    m_source->Add(ProcsMessage::FORK, kPid, ::getpid(), std::uint64_t{1} << 62U);
    SDK::ProcessUtils::procRecord record;
    ASSERT_TRUE(m_collector->Lookup(kPid, record));
    EXPECT_EQ(record.m_status.m_ppid, ::getpid());
    EXPECT_EQ(m_collector->Lookups(), 1U);
    EXPECT_FALSE(m_collector->Lookup(kPid + 1, record));
    EXPECT_EQ(m_collector->UnknownLookups(), 1U);
}

TEST_F(ProcessCollectorTest, TellsInItsBooksHowLongExecsTookToTheirSubscribers) {
    ASSERT_TRUE(m_collector->Start());
    Subscribe();
    const auto anHourAgo = std::chrono::steady_clock::now() - std::chrono::hours(1);
    m_source->Add(ProcsMessage::FORK, kPid, 1, 5);
    m_source->Add(ProcsMessage::EXEC, kPid, 1, 5, anHourAgo);
    const SDK::Ledger books = m_collector->GetLedger();
    ASSERT_TRUE(books.m_latency.has_value());
    EXPECT_EQ(books.m_delivered, 2U);
    EXPECT_EQ(books.m_latency->Count(), 1U);
    EXPECT_EQ(books.m_latency->GetCounts().back(), 1U);
}

TEST_F(ProcessCollectorTest, DeliversWhatCameBeforeAnUnsubscription) {
    ASSERT_TRUE(m_collector->Start());
    Subscribe();
    m_source->Add(ProcsMessage::FORK, kPid, 1, 5);
    m_collector->Unsubscribe(ProcsMessage::FORK, m_inbox);
    EXPECT_EQ(Take(), (Events{{1, kPid}}));
    EXPECT_FALSE(m_collector->Subscribe(7, m_inbox));
}

TEST_F(ProcessCollectorTest, ComesBackSoonForAFullInbox) {
    m_inbox = std::make_shared<Framework::Inbox>("reader", 1);
    ASSERT_TRUE(m_collector->Start());
    Subscribe();
    m_source->Add(ProcsMessage::FORK, kPid, 1, 5);
    m_source->Add(ProcsMessage::FORK, kPid + 1, 1, 5);
    m_collector->Pass();
    EXPECT_EQ(m_collector->Pass(), 10);
    EXPECT_EQ(m_collector->GetCounters().m_waiting, 1U);
    EXPECT_EQ(Take().size(), 1U);
    EXPECT_EQ(m_collector->Pass(), 200);
    EXPECT_EQ(Take().size(), 1U);
    EXPECT_TRUE(m_collector->GetCounters().Balanced());
}

TEST_F(ProcessCollectorTest, CountsWhatASlowSubscriberLoses) {
    m_inbox = std::make_shared<Framework::Inbox>("reader", 1);
    ASSERT_TRUE(m_collector->Start());
    Subscribe();
    for (int i = 0; i < 10; ++i) {
        m_source->Add(ProcsMessage::FORK, kPid + i, 1, 5);
    }
    m_collector->Pass();
    const Counters counters = m_collector->GetCounters();
    EXPECT_TRUE(counters.Balanced());
    EXPECT_EQ(counters.m_seen, 10U);
    EXPECT_GT(counters.m_lostBehind, 0U);
}

TEST_F(ProcessCollectorTest, ItsLedgerSaysWhatItsCountersSay) {
    m_inbox = std::make_shared<Framework::Inbox>("reader", 1);
    ASSERT_TRUE(m_collector->Start());
    Subscribe();
    for (int i = 0; i < 10; ++i) {
        m_source->Add(ProcsMessage::FORK, kPid + i, 1, 5);
    }
    m_source->Add(ProcsMessage::FORK, kPid, 1, 5);
    m_collector->Pass();
    const Counters counters = m_collector->GetCounters();
    const SDK::Ledger books = m_collector->GetLedger();
    EXPECT_EQ(books.m_name, "process_events");
    EXPECT_EQ(books.m_by, "script");
    EXPECT_TRUE(books.Balanced());
    EXPECT_EQ(books.m_seen, 11U);
    EXPECT_EQ(books.m_delivered, 1U);
    EXPECT_EQ(books.m_waiting, counters.m_waiting);
    EXPECT_EQ(books.m_filtered.at("repeated"), 1U);
    EXPECT_EQ(books.m_lost.at("behind"), counters.m_lostBehind);
}

TEST_F(ProcessCollectorTest, CountsEventsByKind) {
    using Kinds = std::map<std::string, std::uint64_t>;
    ASSERT_TRUE(m_collector->Start());
    EXPECT_EQ(m_collector->GetLedger().m_kinds, (Kinds{{"fork", 0}, {"exec", 0}, {"exit", 0}}))
        << "from the start, so that the first one is a change";
    m_source->Add(ProcsMessage::FORK, kPid, 1, 5);
    m_source->Add(ProcsMessage::EXEC, kPid, 1, 5);
    m_source->Add(ProcsMessage::EXEC, kPid, 1, 5);
    m_source->Add(ProcsMessage::EXIT, kPid, 1, 5);
    m_collector->Pass();
    const SDK::Ledger unasked = m_collector->GetLedger();
    EXPECT_EQ(unasked.m_kinds, (Kinds{{"fork", 1}, {"exec", 2}, {"exit", 1}}));
    EXPECT_EQ(unasked.m_filtered.at("unwanted"), 4U);
    Subscribe();
    m_source->Add(ProcsMessage::EXIT, kPid + 1, 1, 5);
    m_collector->Pass();
    EXPECT_EQ(m_collector->GetLedger().m_kinds.at("exit"), 2U);
}

TEST_F(ProcessCollectorTest, ReadsTheProcessListAgainAfterALoss) {
    ASSERT_TRUE(m_collector->Start());
    Subscribe();
    m_source->Add(ProcsMessage::FORK, kPid, 1, 5);
    m_source->m_lost = 3;
    m_collector->Pass();
    EXPECT_EQ(m_collector->Rescans(), 1U);
    EXPECT_EQ(m_collector->GetCounters().m_lostInKernel, 3U);
    EXPECT_TRUE(m_collector->GetCounters().Balanced());
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_WARNING,
                          "Source(script) lost process events, 3 so far. The process list is read "
                          "again."),
              1U);
    EXPECT_EQ(Take(), (Events{{1, kPid}, {3, kPid}})) << "it is not in /proc: it has ended";
    m_collector->Pass();
    EXPECT_EQ(m_collector->Rescans(), 1U) << "once for each loss";
}

TEST_F(ProcessCollectorTest, ReadsTheListAtMostOnceASecondWhileItLoses) {
    ASSERT_TRUE(m_collector->Start());
    m_source->m_lost = 1;
    m_collector->Pass();
    for (int i = 0; i < 5; ++i) {
        ++m_source->m_lost;
        m_collector->Pass();
    }
    EXPECT_LE(m_collector->Rescans(), 2U);
    EXPECT_TRUE(TestSupport::WaitUntil([&] {
        m_collector->Pass();
        return m_collector->Rescans() >= 2;
    }));
}

TEST_F(ProcessCollectorTest, WritesItsBooksWhenItStopsAndOnlyThen) {
    ASSERT_TRUE(m_collector->Start());
    m_source->m_lost = 2;
    m_source->m_cut = 1;
    m_source->Add(ProcsMessage::FORK, kPid, 1, 5);
    m_collector->Stop();
    EXPECT_TRUE(m_source->m_stopped);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_INFORMATION,
                          "Process events of source(script): 3 seen, 0 delivered, 1 unwanted, 0 "
                          "repeated, 2 lost in the kernel, 0 lost behind, 0 lost with their "
                          "subscriber, 0 waiting."),
              1U);
    EXPECT_EQ(
        m_log.Count(Poco::Message::PRIO_WARNING, "Source(script) lost an event 2 times: ring full"),
        1U);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_WARNING,
                          "Source(script) missed a part 1 times: arguments cut"),
              1U);
    m_log.Clear();
    m_collector->Stop();
    EXPECT_TRUE(m_log.Lines().empty());
}

}  // namespace
