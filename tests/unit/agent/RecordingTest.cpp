#include "Recording.h"

#include "RecordingText.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

#include <ctime>
#include <memory>
#include <sstream>

namespace {

using Agent::RecordedEvent;
using Kind = RecordedEvent::Kind;

constexpr std::int64_t kUsPerS = 1000000;

RecordedEvent Exit(int pid) {
    RecordedEvent event;
    event.m_kind = Kind::EXIT;
    event.m_process.m_pid = pid;
    return event;
}

class Recording : public testing::Test {
protected:
    void Open(std::uint64_t limit = 1 << 20) {
        std::string wrong;
        m_recording =
            std::make_unique<Agent::Recording>(Agent::RecordingFile::Open(m_path, limit, wrong));
    }

    /// The events in the file; the header is looked at and left out.
    std::vector<RecordedEvent> Events() const {
        std::istringstream lines(TestSupport::ReadText(m_path));
        std::string line;
        std::getline(lines, line);
        Agent::RecordingHeader header;
        EXPECT_EQ(Agent::RecordingText::Read(line, header), "");
        EXPECT_EQ(header.m_agent, VMESCAPE_VERSION);
        std::vector<RecordedEvent> events;
        while (std::getline(lines, line)) {
            EXPECT_EQ(Agent::RecordingText::Read(line, events.emplace_back()), "") << line;
        }
        return events;
    }

    void ExpectBooks(std::uint64_t delivered, std::uint64_t filtered, std::uint64_t lost) const {
        const SDK::Ledger books = m_recording->GetLedger();
        EXPECT_EQ(books.m_delivered, delivered);
        EXPECT_EQ(books.Filtered(), filtered);
        EXPECT_EQ(books.Lost(), lost);
        EXPECT_TRUE(books.Balanced());
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "recording";
    TestSupport::CapturedLog m_log{Poco::Message::PRIO_NOTICE};
    std::unique_ptr<Agent::Recording> m_recording;
};

TEST_F(Recording, BeginsWithAHeaderAndEndsWithTheReason) {
    Open();
    m_recording->End("stopped");
    const auto events = Events();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].m_kind, Kind::END);
    EXPECT_EQ(events[0].m_reason, "stopped");
    EXPECT_TRUE(m_recording->Ended());
    m_recording->End("again");
    EXPECT_EQ(Events().size(), 1U);
}

TEST_F(Recording, GivesEventsTheTimeOfNow) {
    Open();
    const std::int64_t before = std::time(nullptr) * kUsPerS;
    m_recording->Add(Exit(1));
    m_recording->Add(Exit(2));
    m_recording->Flush();
    const auto events = Events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_GE(events[0].m_at, before);
    EXPECT_LE(events[0].m_at, (std::time(nullptr) + 1) * kUsPerS);
    EXPECT_GE(events[1].m_at, events[0].m_at);
}

TEST_F(Recording, GivesEventsThatHappenTogetherTheSameTime) {
    Open();
    m_recording->Add(std::vector<RecordedEvent>{Exit(1), Exit(2), Exit(3)});
    m_recording->Flush();
    for (const RecordedEvent& event : Events()) {
        EXPECT_EQ(event.m_at, Events()[0].m_at);
    }
}

TEST_F(Recording, KeepsBooksOfWhatItWrote) {
    Open();
    m_recording->Add(Exit(1));
    EXPECT_EQ(m_recording->GetLedger().m_waiting, 1U);
    m_recording->Flush();
    m_recording->CountLost(3);
    ExpectBooks(1, 0, 3);
    EXPECT_EQ(m_recording->GetLedger().m_kinds.at("exit"), 1U);
    EXPECT_EQ(m_recording->GetLedger().m_name, "recording");
    EXPECT_EQ(m_recording->GetLedger().m_by, m_path);
    EXPECT_EQ(m_recording->GetLedger().m_lost.at("behind"), 3U);
}

TEST_F(Recording, EndsWhenItIsFullAndSaysSo) {
    Open(2000);
    for (int pid = 0; pid < 1000; ++pid) {
        m_recording->Add(Exit(pid));
    }
    const auto events = Events();
    EXPECT_LE(TestSupport::ReadText(m_path).size(), 2000U);
    ASSERT_GT(events.size(), 2U);
    EXPECT_EQ(events.back().m_kind, Kind::END);
    EXPECT_EQ(events.back().m_reason, "full");
    ExpectBooks(events.size() - 1, 1000 - (events.size() - 1), 0);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_WARNING,
                          "Recording(" + m_path + ") has reached its limit and ends"),
              1U);
    EXPECT_EQ(m_recording->GetLedger().m_trouble, "") << "it did what it was told to";
}

/// The file system has no room for more of a file while it lives.
class SmallFiles {
public:
    explicit SmallFiles(std::uint64_t bytes) : m_handler(::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &m_limit);
        const rlimit small{bytes, m_limit.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &small);
    }
    ~SmallFiles() {
        ::setrlimit(RLIMIT_FSIZE, &m_limit);
        ::signal(SIGXFSZ, m_handler);
    }
    SmallFiles(const SmallFiles&) = delete;
    SmallFiles& operator=(const SmallFiles&) = delete;

private:
    void (*const m_handler)(int);
    rlimit m_limit{};
};

TEST_F(Recording, EndsWhenItCannotBeWrittenAndCountsWhatIsLost) {
    Open();
    m_recording->Add(Exit(1));
    m_recording->Flush();
    m_recording->Add(Exit(2));
    m_recording->Add(Exit(3));
    {
        const SmallFiles small(TestSupport::ReadText(m_path).size() + 10);
        m_recording->Flush();
    }
    EXPECT_TRUE(m_recording->Ended());
    m_recording->Add(Exit(4));
    ExpectBooks(1, 1, 2);
    EXPECT_EQ(Events().size(), 1U) << "no torn line";
    const std::string trouble = "Recording(" + m_path + ") cannot be written: File too large";
    EXPECT_EQ(m_recording->GetLedger().m_trouble, trouble);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_ERROR, trouble + ". The recording ends."), 1U);
}

TEST_F(Recording, SaysAtItsEndThatItCouldNotBeWrittenWhereThereIsRoomForThat) {
    Open();
    m_recording->Flush();
    for (int pid = 0; pid < 100; ++pid) {
        m_recording->Add(Exit(pid));
    }
    {
        const SmallFiles small(TestSupport::ReadText(m_path).size() + 200);
        m_recording->Flush();
    }
    const auto events = Events();
    ASSERT_EQ(events.size(), 1U) << "what was torn was taken back";
    EXPECT_EQ(events[0].m_kind, Kind::END);
    EXPECT_EQ(events[0].m_reason, "failed");
    ExpectBooks(0, 0, 100);
}

TEST_F(Recording, LeavesOutALineThatNobodyWouldRead) {
    Open(1 << 30);
    RecordedEvent event = Exit(1);
    event.m_kind = Kind::EXEC;
    event.m_process.m_cmdline = std::string(Agent::RecordingText::MAX_LINE_BYTES, 'x');
    m_recording->Add(event);
    m_recording->Add(Exit(2));
    m_recording->Flush();
    ExpectBooks(1, 0, 1);
    EXPECT_EQ(Events().size(), 1U);
}

}  // namespace
