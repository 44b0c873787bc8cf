#include "AlarmSink.h"

#include "AlarmSpool.h"
#include "ScriptedWriter.h"
#include "SinkBooks.h"
#include "TestPipe.h"
#include "outputs/FileWriter.h"
#include "outputs/LineWriter.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Engine::AlarmFormatter;
using Engine::AlarmSink;
using Engine::FileWriter;
using Engine::LineWriter;
using TestSupport::WaitUntil;

constexpr auto kError = Poco::Message::PRIO_ERROR;

// For a reader that does not come.
constexpr std::chrono::milliseconds kShort{1};

using Clock = std::chrono::steady_clock;

/// How long ago that was, in seconds.
double Since(Clock::time_point time) {
    return std::chrono::duration<double>(Clock::now() - time).count();
}

class AlarmSinkOnAPipe : public testing::Test {
protected:
    std::unique_ptr<AlarmSink> Sink(std::size_t capacity = 100) {
        return std::make_unique<AlarmSink>(std::make_unique<LineWriter>(m_pipe.WriteEnd(), "pipe"),
                                           AlarmFormatter(AlarmFormatter::Style::JSON, false),
                                           capacity);
    }

    TestSupport::CapturedLog m_log;
    TestPipe m_pipe;
};

TEST_F(AlarmSinkOnAPipe, WritesEveryDocumentInOrder) {
    const auto sink = Sink();
    EXPECT_TRUE(sink->Offer("{\"a\":1}"));
    EXPECT_TRUE(sink->Offer("{\"a\":2}"));
    sink->Stop();
    EXPECT_EQ(m_pipe.Read(), "{\"a\":1}\n{\"a\":2}\n");
    EXPECT_EQ(Written(*sink), 2U);
    EXPECT_TRUE(m_log.Contains("Output(pipe) ends: 2 alarms written, 0 dropped, 0 failed"));
}

TEST_F(AlarmSinkOnAPipe, WritesWhatStillWaitsWhenItIsStopped) {
    m_pipe.Fill();
    const auto sink = Sink();
    for (int i = 0; i < 10; ++i) {
        sink->Offer("document");
    }
    std::thread stopper([&] { sink->Stop(); });
    std::string seen;
    EXPECT_TRUE(WaitUntil([&] {
        seen += m_pipe.Read();
        return std::count(seen.begin(), seen.end(), '\n') == 10;
    }));
    stopper.join();
    EXPECT_EQ(Written(*sink), 10U);
}

TEST_F(AlarmSinkOnAPipe, ThatNobodyReadsDropsWhatItsQueueDoesNotHoldAndSaysSoOnce) {
    m_pipe.Fill();
    const auto sink = Sink(3);
    int queued = 0;
    for (int i = 0; i < 20; ++i) {
        queued += sink->Offer("document") ? 1 : 0;
    }
    // One may be in the writer's hands already.
    EXPECT_GE(queued, 3);
    EXPECT_LE(queued, 4);
    EXPECT_EQ(Dropped(*sink), 20U - static_cast<unsigned>(queued));
    EXPECT_EQ(m_log.Count(kError,
                          "The queue of output(pipe) is full(3 alarms). Alarms are dropped, 1 so "
                          "far."),
              1U);
    EXPECT_EQ(m_log.Texts(kError).size(), 1U);
}

TEST_F(AlarmSinkOnAPipe, ThatNobodyReadsDoesNotHoldUpTheStopForever) {
    m_pipe.Fill();
    const auto sink = Sink(3);
    for (int i = 0; i < 20; ++i) {
        sink->Offer("document");
    }
    sink->Stop();
    EXPECT_EQ(Written(*sink), 0U);
    EXPECT_EQ(Written(*sink) + Dropped(*sink) + Failed(*sink), 20U);
}

TEST_F(AlarmSinkOnAPipe, ThatNobodyReadsIsInTroubleUntilItIsReadAndLosesNothing) {
    m_pipe.Fill();
    AlarmSink sink(std::make_unique<LineWriter>(m_pipe.WriteEnd(), "pipe", kShort),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 10);
    sink.Offer("one");
    sink.Offer("two");
    ASSERT_TRUE(WaitUntil(
        [&] { return BooksOf(sink).m_trouble == "Output(pipe) cannot be written: nobody reads"; }));
    EXPECT_EQ(BooksOf(sink).m_waiting, 2U);
    m_pipe.Read();
    ASSERT_TRUE(WaitUntil([&] { return Written(sink) == 2; }));
    EXPECT_TRUE(WaitUntil([&] { return BooksOf(sink).m_trouble.empty(); }));
    EXPECT_EQ(m_pipe.Read(), "one\ntwo\n");
    EXPECT_EQ(m_log.Texts(kError),
              std::vector<std::string>{
                  "Output(pipe) cannot be written: nobody reads. 0 alarms failed so far."});
    EXPECT_TRUE(m_log.Contains("Output(pipe) can be written again. 0 alarms failed so far."));
}

TEST_F(AlarmSinkOnAPipe, WithoutReaderCountsEveryFailureAndSaysSoOnce) {
    m_pipe.CloseReader();
    const auto sink = Sink();
    sink->Offer("one");
    sink->Offer("two");
    sink->Stop();
    EXPECT_EQ(Failed(*sink), 2U);
    EXPECT_EQ(
        m_log.Count(kError, "Output(pipe) cannot be written: Broken pipe. 1 alarms failed so far."),
        1U);
    EXPECT_EQ(m_log.Texts(kError).size(), 1U);
}

TEST_F(AlarmSinkOnAPipe, GoesOnWhenItsPlaceTakesLinesAgain) {
    const TestPipe good;
    m_pipe.CloseReader();
    const auto sink = Sink();
    sink->Offer("lost");
    ASSERT_TRUE(WaitUntil([&] { return Failed(*sink) == 1; }));
    ASSERT_GE(::dup2(good.WriteEnd(), m_pipe.WriteEnd()), 0);
    sink->Offer("kept");
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 1; }));
    sink->Stop();
    EXPECT_EQ(good.Read(), "kept\n");
    EXPECT_TRUE(m_log.Contains("Output(pipe) can be written again. 1 alarms failed so far."));
}

TEST_F(AlarmSinkOnAPipe, TakesDocumentsFromManyThreadsWithoutMixingLines) {
    const auto sink = Sink(100000);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&sink, t] {
            for (int i = 0; i < 500; ++i) {
                sink->Offer(std::string(50, static_cast<char>('a' + t)));
            }
        });
    }
    std::string seen;
    EXPECT_TRUE(WaitUntil([&] {
        seen += m_pipe.Read();
        return std::count(seen.begin(), seen.end(), '\n') == 2000;
    }));
    for (std::thread& thread : threads) {
        thread.join();
    }
    sink->Stop();
    for (std::size_t line = 0; line < seen.size(); line += 51) {
        EXPECT_EQ(seen.substr(line, 51), std::string(50, seen[line]) + '\n');
    }
}

TEST(AlarmSink, OnAFullDiskKeepsRunningAndCounts) {
    TestSupport::CapturedLog log;
    AlarmSink sink(FileWriter::Open("/dev/full", {}),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 100);
    sink.Offer("one");
    sink.Offer("two");
    sink.Stop();
    EXPECT_EQ(Failed(sink), 2U);
    EXPECT_EQ(log.Count(kError,
                        "Output(/dev/full) cannot be written: No space left on device. 1 alarms "
                        "failed so far."),
              1U);
}

TEST(AlarmSink, OnAFullDiskIsInTroubleUntilAnAlarmWasWritten) {
    const TestSupport::CapturedLog log;
    AlarmSink sink(FileWriter::Open("/dev/full", {}),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 10);
    sink.Offer("one");
    ASSERT_TRUE(WaitUntil([&] { return Failed(sink) == 1; }));
    EXPECT_FALSE(
        WaitUntil([&] { return sink.GetLedger().m_trouble.empty(); }, std::chrono::seconds(6)))
        << "longer than the pause after which other places are asked whether they are back";
}

TEST(AlarmSink, KeepsAlarmsWhileALinkStandsAtThePlaceOfItsFile) {
    TestSupport::CapturedLog log;
    const TestSupport::TemporaryFolder folder;
    const std::string path = folder / "alarms";
    AlarmSink sink(FileWriter::Open(path, {}), AlarmFormatter(AlarmFormatter::Style::JSON, false),
                   10);
    std::filesystem::remove(path);
    std::filesystem::create_symlink(folder / "target", path);
    sink.Offer("one");
    sink.Offer("two");
    const std::string trouble = "Output(" + path +
                                ") cannot be written: a symbolic link has taken its place, which "
                                "is not followed";
    ASSERT_TRUE(WaitUntil([&] { return BooksOf(sink).m_trouble == trouble; }));
    EXPECT_EQ(BooksOf(sink).m_waiting, 2U);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{trouble + ". 0 alarms failed so far."});
    std::filesystem::remove(path);
    ASSERT_TRUE(WaitUntil([&] { return Written(sink) == 2; }));
    EXPECT_EQ(TestSupport::ReadText(path), "one\ntwo\n");
    EXPECT_FALSE(std::filesystem::exists(folder / "target"));
}

TEST(AlarmSink, TakesNothingAfterItsStop) {
    TestSupport::CapturedLog log;
    TestSupport::TemporaryFolder folder;
    AlarmSink sink(FileWriter::Open(folder / "alarms", {}),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 100);
    sink.Stop();
    sink.Stop();
    EXPECT_FALSE(sink.Offer("late"));
    EXPECT_EQ(Dropped(sink), 1U);
}

/// Lets a test look around at the beginning of each try.
class WatchedWriter : public ScriptedWriter {
public:
    WatchedWriter(Place& place, std::function<void()> look)
        : ScriptedWriter(place), m_look(std::move(look)) {}
    std::size_t Write(const std::vector<Engine::OutgoingAlarm>& alarms, std::string& why) override {
        m_look();
        return ScriptedWriter::Write(alarms, why);
    }

private:
    const std::function<void()> m_look;
};

class AlarmSinkWithASpool : public testing::Test {
protected:
    std::unique_ptr<AlarmSink> Sink(std::size_t capacity = 100, std::uint64_t limit = 1 << 20,
                                    std::size_t batch = 3) {
        return Sink(std::make_unique<ScriptedWriter>(m_place, true, batch), capacity, limit);
    }
    std::unique_ptr<AlarmSink> Sink(std::unique_ptr<ScriptedWriter> writer, std::size_t capacity,
                                    std::uint64_t limit) {
        std::string why;
        auto spool = Engine::AlarmSpool::Open(m_folder.Path(), "place", limit, why);
        EXPECT_NE(spool, nullptr) << why;
        return std::make_unique<AlarmSink>(std::move(writer),
                                           AlarmFormatter(AlarmFormatter::Style::JSON, false),
                                           capacity, std::move(spool));
    }
    static std::vector<std::string> Numbers(int begin, int end) {
        std::vector<std::string> texts;
        for (int i = begin; i < end; ++i) {
            texts.push_back(std::to_string(i));
        }
        return texts;
    }
    /// Numbers with so much behind each that it is a kilobyte.
    static std::vector<std::string> Kilobytes(int begin, int end) {
        std::vector<std::string> texts = Numbers(begin, end);
        for (std::string& text : texts) {
            text.resize(1024, '.');
        }
        return texts;
    }
    std::size_t Segments() const {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder.Path())) {
            count += entry.path().extension() == ".jsonl" ? 1 : 0;
        }
        return count;
    }
    static int OfferAll(AlarmSink& sink, const std::vector<std::string>& texts) {
        int queued = 0;
        for (const std::string& text : texts) {
            queued += sink.Offer(text) ? 1 : 0;
        }
        return queued;
    }

    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_folder;
    ScriptedWriter::Place m_place;
};

TEST_F(AlarmSinkWithASpool, PutsNothingOnDiskWhileThePlaceTakesAlarms) {
    const auto sink = Sink();
    OfferAll(*sink, Numbers(0, 50));
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 50; }));
    sink->Stop();
    EXPECT_EQ(m_place.Taken(), Numbers(0, 50));
    EXPECT_FALSE(std::filesystem::exists(m_folder / "place.1.jsonl"));
}

TEST_F(AlarmSinkWithASpool, KeepsFarMoreThanItsQueueHoldsWhileThePlaceIsAway) {
    m_place.Take(0);
    const auto sink = Sink(10);
    for (int i = 0; i < 60; ++i) {
        // Not faster than the disk takes them.
        ASSERT_TRUE(WaitUntil([&] { return OfferAll(*sink, {std::to_string(i)}) == 1; }));
    }
    const std::uint64_t dropped = Dropped(*sink);
    m_place.Take(-1);
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 60; }));
    EXPECT_EQ(m_place.Taken(), Numbers(0, 60)) << "each once, in order";
    EXPECT_EQ(Latency(*sink).Count(), 60U);
    EXPECT_EQ(BooksOf(*sink).m_seen, 60 + dropped);
}

TEST_F(AlarmSinkWithASpool, TakesUpWhatAnAgentBeforeItLeft) {
    m_place.Take(0);
    {
        const auto sink = Sink();
        OfferAll(*sink, Numbers(0, 7));
        sink->Stop();
        EXPECT_EQ(BooksOf(*sink).m_waiting, 7U);
        EXPECT_EQ(BooksOf(*sink).Lost(), 0U);
        EXPECT_TRUE(
            m_log.Contains("Output(place) leaves 7 alarms in its spool, for the next start"));
    }
    const auto sink = Sink();
    OfferAll(*sink, Numbers(7, 9));
    m_place.Take(7);
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 7; }));
    EXPECT_EQ(Latency(*sink).Count(), 0U) << "nobody knows when those from before were offered";
    m_place.Take(-1);
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 9; }));
    EXPECT_EQ(Latency(*sink).Count(), 2U);
    EXPECT_EQ(m_place.Taken(), Numbers(0, 9));
    EXPECT_EQ(BooksOf(*sink).m_seen, 9U);
    EXPECT_TRUE(m_log.Contains("Output(place) has 7 alarms in its spool from before"));
}

TEST_F(AlarmSinkWithASpool, GivesAgainOnlyWhatHasNotArrived) {
    m_place.Take(2);
    const auto sink = Sink();
    OfferAll(*sink, Numbers(0, 9));
    ASSERT_TRUE(WaitUntil([&] { return !sink->GetLedger().m_trouble.empty(); }));
    EXPECT_EQ(BooksOf(*sink).m_waiting, 7U);
    m_place.Take(-1);
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 9; }));
    EXPECT_EQ(m_place.Taken(), Numbers(0, 9));
}

TEST_F(AlarmSinkWithASpool, SendsEachAlarmOnceOfAHandThatIsLargerThanASegment) {
    m_place.Take(0);
    std::unique_ptr<AlarmSink> sink;
    {
        const SDK::LockGuard lock(m_place.m_mutex);  // it takes none in hand before all are there
        sink = Sink(1000, 1 << 20, 300);
        OfferAll(*sink, Kilobytes(0, 300));
    }
    ASSERT_TRUE(WaitUntil([&] { return Segments() > 2; }));
    m_place.Take(-1);
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 300; }));
    EXPECT_EQ(m_place.Taken(), Kilobytes(0, 300)) << "each once, in order";
    ASSERT_TRUE(WaitUntil([&] { return BooksOf(*sink).m_trouble.empty(); }));
    EXPECT_EQ(BooksOf(*sink).m_waiting, 0U);
    EXPECT_EQ(Segments(), 0U);

    m_place.Take(0);
    OfferAll(*sink, Kilobytes(300, 400));
    ASSERT_TRUE(WaitUntil([&] { return Segments() > 0; }));
    m_place.Take(-1);
    ASSERT_TRUE(WaitUntil([&] { return BooksOf(*sink).m_waiting == 0; }));
    sink->Stop();
    EXPECT_EQ(m_place.Taken(), Kilobytes(0, 400));
    EXPECT_EQ(Segments(), 0U);
}

TEST_F(AlarmSinkWithASpool, HasEverythingOnDiskWhenItTriesAPlaceThatIsInTrouble) {
    m_place.Take(0);
    std::promise<std::string> first;
    std::unique_ptr<AlarmSink> sink;
    {
        const SDK::LockGuard lock(m_place.m_mutex);  // it finds the place away when all are there
        sink = Sink(std::make_unique<WatchedWriter>(
                        m_place,
                        [&, once = true]() mutable {
                            if (std::exchange(once, false)) {
                                first.set_value(TestSupport::ReadText(m_folder / "place.1.jsonl"));
                            }
                        }),
                    100, 1 << 20);
        OfferAll(*sink, Numbers(0, 6));
    }
    EXPECT_EQ(first.get_future().get(), "0\n1\n2\n3\n4\n5\n");
    m_place.Take(-1);
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 6; }));
    EXPECT_EQ(m_place.Taken(), Numbers(0, 6));
    sink->Stop();
}

TEST_F(AlarmSinkWithASpool, GoesOnInMemoryWhenTheSpoolIsFullAndSaysSoOnce) {
    m_place.Take(0);
    const auto sink = Sink(10, 20);
    int queued = 0;
    EXPECT_TRUE(WaitUntil([&] {
        queued += OfferAll(*sink, {"1234"});
        return Dropped(*sink) > 0 && queued >= 10 + 4;
    })) << "what the queue holds, and what the spool does";
    const auto said = [&] {
        return m_log.Count(kError,
                           "Output(place) cannot put more alarms into its spool: the spool is "
                           "full(20 bytes). They wait in memory.");
    };
    ASSERT_TRUE(WaitUntil([&] { return said() > 0; }));
    EXPECT_EQ(said(), 1U);
    m_place.Take(-1);
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == static_cast<std::uint64_t>(queued); }));
}

TEST_F(AlarmSinkWithASpool, CountsWhatSomebodyTookAwayFromTheDisk) {
    m_place.Take(0);
    const auto sink = Sink();
    OfferAll(*sink, Numbers(0, 20));
    ASSERT_TRUE(WaitUntil([&] { return !sink->GetLedger().m_trouble.empty(); }));
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::remove(m_folder / "place.1.jsonl"); }));
    m_place.Take(-1);
    ASSERT_TRUE(WaitUntil([&] { return BooksOf(*sink).m_waiting == 0; }));
    EXPECT_GT(Failed(*sink), 0U);
    EXPECT_EQ(Written(*sink) + Failed(*sink), 20U);
    const SDK::LatencyHistogram latency = Latency(*sink);
    EXPECT_EQ(latency.Count(), Written(*sink));
    const Clock::time_point before = Clock::now();
    OfferAll(*sink, {"20"});
    ASSERT_TRUE(WaitUntil([&] { return Latency(*sink).Count() == latency.Count() + 1; }));
    EXPECT_LE(Latency(*sink).SumS() - latency.SumS(), Since(before)) << "its own, not a lost one's";
    EXPECT_TRUE(m_log.Contains("alarms of its spool: spool file("));
}

TEST_F(AlarmSinkWithASpool, KeepsWhatItCannotReadAndSendsItWhenItCan) {
    m_place.Take(0);
    {
        const auto sink = Sink();
        OfferAll(*sink, Numbers(0, 20));
        sink->Stop();
    }
    const std::string segment = m_folder / "place.1.jsonl";
    std::filesystem::rename(segment, m_folder / "away");
    std::filesystem::create_directory(segment);
    m_place.Take(-1);
    const auto sink = Sink();
    OfferAll(*sink, Numbers(20, 25));
    ASSERT_TRUE(WaitUntil([&] { return !BooksOf(*sink).m_trouble.empty(); }));
    EXPECT_EQ(BooksOf(*sink).m_trouble, "Output(place) cannot be written: spool file(" + segment +
                                            ") cannot be read: Is a directory");
    std::filesystem::remove(segment);
    std::filesystem::rename(m_folder / "away", segment);
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 25; }));
    EXPECT_EQ(m_place.Taken(), Numbers(0, 25));
    EXPECT_EQ(BooksOf(*sink).m_seen, 25U) << "with those from before, counted late";
    EXPECT_EQ(Latency(*sink).Count(), 5U);
    EXPECT_EQ(Failed(*sink), 0U);
    EXPECT_TRUE(WaitUntil([&] { return BooksOf(*sink).m_trouble.empty(); }));
}

TEST_F(AlarmSinkWithASpool, LosesNoMoreThanTheSegmentThatSomebodyTookAway) {
    m_place.Take(0);
    const auto sink = Sink(1000);
    OfferAll(*sink, Kilobytes(0, 300));
    ASSERT_TRUE(WaitUntil([&] { return Segments() == 3; }));
    const std::string segment = m_folder / "place.2.jsonl";
    const std::uint64_t held = std::filesystem::file_size(segment) / 1025;
    ASSERT_TRUE(std::filesystem::remove(segment));
    m_place.Take(-1);
    ASSERT_TRUE(WaitUntil([&] { return BooksOf(*sink).m_waiting == 0; }));
    EXPECT_EQ(Failed(*sink), held);
    EXPECT_EQ(Written(*sink), 300 - held);
    EXPECT_EQ(m_place.Taken().back(), Kilobytes(299, 300).front());
}

TEST(AlarmSink, TellsHowLongAlarmsTookFromTheirOfferToTheirArrival) {
    const TestSupport::CapturedLog log;
    ScriptedWriter::Place place;
    place.Take(0);
    AlarmSink sink(std::make_unique<ScriptedWriter>(place),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 10);
    const Clock::time_point before = Clock::now();
    sink.Offer("one");
    sink.Offer("two");
    const Clock::time_point offered = Clock::now();
    ASSERT_TRUE(WaitUntil([&] { return !sink.GetLedger().m_trouble.empty(); }));
    EXPECT_EQ(Latency(sink).Count(), 0U) << "none has arrived";
    const double away = Since(offered);
    place.Take(-1);
    ASSERT_TRUE(WaitUntil([&] { return Written(sink) == 2; }));
    EXPECT_EQ(Latency(sink).Count(), 2U);
    EXPECT_GE(Latency(sink).SumS(), 2 * away);
    EXPECT_LE(Latency(sink).SumS(), 2 * Since(before));
}

TEST(AlarmSink, TellsNoLatencyOfAlarmsThatDoNotArrive) {
    const TestSupport::CapturedLog log;
    ScriptedWriter::Place place;
    place.Take(0);
    AlarmSink sink(std::make_unique<ScriptedWriter>(place, false),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 10);
    sink.Offer("refused");
    ASSERT_TRUE(WaitUntil([&] { return Failed(sink) == 1; }));
    place.Take(-1);
    const Clock::time_point before = Clock::now();
    sink.Offer("taken");
    ASSERT_TRUE(WaitUntil([&] { return Written(sink) == 1; }));
    EXPECT_EQ(Latency(sink).Count(), 1U);
    EXPECT_LE(Latency(sink).SumS(), Since(before)) << "its own, not that of the one before it";
}

TEST(AlarmSink, WritesTheRestOfABatchOfWhichOneIsRefused) {
    const TestSupport::CapturedLog log;
    ScriptedWriter::Place place;
    place.Take(0);
    AlarmSink sink(std::make_unique<ScriptedWriter>(place, false),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 10);
    sink.Offer("refused");
    ASSERT_TRUE(WaitUntil([&] { return Failed(sink) == 1; }));
    place.Take(-1);
    sink.Offer("taken");
    EXPECT_TRUE(WaitUntil([&] { return Written(sink) == 1; }));
    EXPECT_EQ(place.Taken(), std::vector<std::string>{"taken"});
}

/// Refuses for good, and can be asked all the same whether it takes alarms.
class RefusingWriter : public ScriptedWriter {
public:
    explicit RefusingWriter(Place& place) : ScriptedWriter(place, false) {}
    bool CanBeProbed() const override { return true; }
};

TEST(AlarmSink, LooksWhetherThePlaceTakesAlarmsAfterItRefusedTheLastOfAHand) {
    const TestSupport::CapturedLog log;
    ScriptedWriter::Place place;
    place.Take(0);
    AlarmSink sink(std::make_unique<RefusingWriter>(place),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 10);
    ASSERT_TRUE(WaitUntil([&] { return place.Prepared() == 1; }));
    sink.Offer("refused");
    ASSERT_TRUE(WaitUntil([&] { return Failed(sink) == 1; }));
    EXPECT_NE(BooksOf(sink).m_trouble, "");
    place.Take(-1);
    EXPECT_TRUE(WaitUntil([&] { return BooksOf(sink).m_trouble.empty(); }))
        << "though no other alarm comes";
    EXPECT_GT(place.Prepared(), 1);
    EXPECT_TRUE(place.Taken().empty());
}

TEST(AlarmSink, GetsReadyAnewWhenItIsToReopen) {
    const TestSupport::CapturedLog log;
    ScriptedWriter::Place place;
    AlarmSink sink(std::make_unique<ScriptedWriter>(place),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 10);
    ASSERT_TRUE(WaitUntil([&] { return place.Prepared() == 1; }));
    sink.Reopen();
    EXPECT_TRUE(WaitUntil([&] { return place.Prepared() == 2; }));
}

TEST(AlarmSink, IsNotCuredByReopeningWhatOnlyAnAlarmCanTry) {
    const TestSupport::CapturedLog log;
    ScriptedWriter::Place place;
    place.Take(0);
    AlarmSink sink(std::make_unique<ScriptedWriter>(place, false),
                   AlarmFormatter(AlarmFormatter::Style::JSON, false), 10);
    sink.Offer("refused");
    ASSERT_TRUE(WaitUntil([&] { return Failed(sink) == 1; }));
    place.Take(-1);
    sink.Reopen();
    ASSERT_TRUE(WaitUntil([&] { return place.Prepared() == 2; }));
    place.Take(0);
    sink.Offer("refused again");
    ASSERT_TRUE(WaitUntil([&] { return Failed(sink) == 2; }));
    EXPECT_FALSE(log.Contains("can be written again"));
}

}  // namespace
