// The webhook as an output: with the queue, the thread and the spool of its sink.

#include "AlarmSink.h"
#include "SinkBooks.h"
#include "WebhookTest.h"
#include "support/WaitUntil.h"

#include <Poco/Exception.h>

#include <chrono>
#include <thread>

namespace {

using Engine::AlarmFormatter;
using Engine::AlarmSink;
using Engine::AlarmSpool;
using TestSupport::WaitUntil;
using Clock = std::chrono::steady_clock;

class WebhookSink : public WebhookTest {
protected:
    std::unique_ptr<AlarmSink> Sink(const std::string& url,
                                    std::unique_ptr<AlarmSpool> spool = nullptr) {
        return std::make_unique<AlarmSink>(Writer(url),
                                           AlarmFormatter(AlarmFormatter::Style::JSON, false), 1000,
                                           std::move(spool));
    }
    std::unique_ptr<AlarmSpool> Spool() {
        return AlarmSpool::Open(m_folder.Path(), "webhook", 1 << 20, m_why);
    }
    static void Offer(AlarmSink& sink, int first, int last) {
        for (const Engine::OutgoingAlarm& alarm : Alarms(first, last)) {
            EXPECT_TRUE(sink.Offer(alarm.m_document));
        }
    }

    /// The numbers of all alarms that a server took, in its order.
    static std::vector<int> Taken(WebServer& server) {
        std::vector<int> taken;
        const std::string mark = "{\"event_id\":";
        for (const Request& request : server.Requests()) {
            const std::string& body = request.m_body;
            for (std::size_t at = body.find(mark); at != std::string::npos;
                 at = body.find(mark, at + 1)) {
                taken.push_back(std::stoi(body.substr(at + mark.length())));
            }
        }
        return taken;
    }
    static std::vector<int> Numbers(int first, int last) {
        std::vector<int> numbers;
        for (int i = first; i <= last; ++i) {
            numbers.push_back(i);
        }
        return numbers;
    }

    void ExpectQuickStop(AlarmSink& sink) {
        const Clock::time_point start = Clock::now();
        sink.Stop();
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
    }
};

TEST_F(WebhookSink, BringsEveryAlarmOnceAndInOrder) {
    WebServer server(Answer(200));
    const auto sink = Sink(server.Url());
    Offer(*sink, 1, 500);
    EXPECT_TRUE(WaitUntil([&] { return Written(*sink) == 500; }));
    EXPECT_EQ(Taken(server), Numbers(1, 500));
    EXPECT_LT(server.Requests().size(), 500U);
}

TEST_F(WebhookSink, KeepsAlarmsWhileTheServerIsAway) {
    auto server = std::make_unique<WebServer>(Answer(200));
    const std::uint16_t port = server->Port();
    const std::string url = server->Url();
    server.reset();
    const auto sink = Sink(url);
    Offer(*sink, 1, 250);
    ASSERT_TRUE(WaitUntil([&] { return !sink->GetLedger().m_trouble.empty(); }));
    EXPECT_EQ(BooksOf(*sink).m_waiting, 250U);
    server = std::make_unique<WebServer>(Answer(200), port);
    EXPECT_TRUE(WaitUntil([&] { return Written(*sink) == 250; }));
    EXPECT_EQ(Taken(*server), Numbers(1, 250));
    EXPECT_TRUE(WaitUntil([&] { return sink->GetLedger().m_trouble.empty(); }));
    EXPECT_EQ(m_log.Texts(Poco::Message::PRIO_ERROR).size(), 1U) << "the trouble, once";
    EXPECT_TRUE(m_log.Contains("Output(webhook) can be written again. 0 alarms failed so far."));
}

TEST_F(WebhookSink, CountsAndSaysWhatTheServerRefuses) {
    WebServer server([](const Request& request) {
        return Reply{Holds(request, 3) ? 400 : 200, "bad\x1b", {}};
    });
    const auto sink = Sink(server.Url());
    Offer(*sink, 1, 10);
    EXPECT_TRUE(WaitUntil([&] { return Written(*sink) == 9 && Failed(*sink) == 1; }));
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_ERROR,
                          "Output(webhook) cannot be written: " + server.Url() +
                              " answered 400 Bad Request: \"bad\\x1b\". 1 alarms failed so far."),
              1U);
    EXPECT_TRUE(WaitUntil([&] { return sink->GetLedger().m_trouble.empty(); }));
}

TEST_F(WebhookSink, TellsNoPartOfItsAddressThatTheServerRepeats) {
    for (const char* answer : {"Cannot POST /hooks/s3cr3ttoken", "unknown token s3cr3ttoken"}) {
        WebServer server(Answer(404, answer));
        const auto sink = Sink(server.Url() + "/hooks/s3cr3ttoken?site=one");
        Offer(*sink, 1, 1);
        ASSERT_TRUE(WaitUntil([&] { return !sink->GetLedger().m_trouble.empty(); }));
        const std::string trouble = sink->GetLedger().m_trouble;
        EXPECT_NE(trouble.find(" answered 404 Not Found: \""), std::string::npos) << trouble;
        EXPECT_EQ(trouble.find("s3cr3t"), std::string::npos) << trouble;
        EXPECT_FALSE(m_log.Contains("s3cr3t"));
    }
}

TEST_F(WebhookSink, BringsWhatAnAgentBeforeItLeftInTheSpool) {
    auto server = std::make_unique<WebServer>(Answer(503));
    const std::uint16_t port = server->Port();
    const std::string url = server->Url();
    auto sink = Sink(url, Spool());
    Offer(*sink, 1, 150);
    ASSERT_TRUE(WaitUntil([&] { return !sink->GetLedger().m_trouble.empty(); }));
    ExpectQuickStop(*sink);
    EXPECT_EQ(BooksOf(*sink).m_waiting, 150U);
    sink.reset();
    server.reset();
    server = std::make_unique<WebServer>(Answer(200), port);
    sink = Sink(url, Spool());
    EXPECT_TRUE(WaitUntil([&] { return Written(*sink) == 150; }));
    EXPECT_EQ(Taken(*server), Numbers(1, 150));
}

TEST_F(WebhookSink, DoesNotHoldUpTheStopForAServerThatIsFull) {
    const SilentServer server(true);
    Set("timeout", "60");
    const auto sink = Sink(server.Url());
    Offer(*sink, 1, 5);
    ExpectQuickStop(*sink);
    EXPECT_EQ(sink->GetLedger().Lost(), 5U);
    EXPECT_TRUE(m_log.Contains(server.Url() + ": no answer before the end of the agent"));
}

TEST_F(WebhookSink, DoesNotHoldUpTheStopForAServerThatNeverAnswers) {
    const SilentServer server;
    Set("timeout", "60");
    for (const std::string scheme : {"http://", "https://"}) {
        const auto sink = Sink(scheme + server.Address().toString());
        Offer(*sink, 1, 5);
        ExpectQuickStop(*sink);
        EXPECT_EQ(sink->GetLedger().Lost(), 5U);
    }
}

TEST_F(WebhookSink, DoesNotHoldUpTheStopForAServerThatNeverEndsItsAnswer) {
    SilentServer server;
    Set("timeout", "60");
    const auto sink = Sink(server.Url());
    Poco::Net::StreamSocket other = server.Accept();
    Offer(*sink, 1, 1);
    std::atomic<bool> ended = false;
    const std::jthread answer([&] {
        try {
            WaitUntil(
                [&] {
                    other.sendBytes("H", 1);
                    return ended.load();
                },
                std::chrono::seconds(60));
        } catch (const Poco::Exception&) {
            // It was given up.
        }
    });
    ExpectQuickStop(*sink);
    ended = true;
}

TEST_F(WebhookSink, DoesNotHoldUpTheStopForAServerThatAskedToBeLeftAlone) {
    WebServer server([](const Request&) { return Reply{429, "", {{"Retry-After", "3600"}}}; });
    const auto sink = Sink(server.Url());
    Offer(*sink, 1, 5);
    ASSERT_TRUE(WaitUntil([&] { return !sink->GetLedger().m_trouble.empty(); }));
    ExpectQuickStop(*sink);
    EXPECT_EQ(server.Requests().size(), 1U);
}

}  // namespace
