// What is told of accesses, and to whom.

#include "NotifierHarness.h"
#include "support/CapturedLog.h"

#include <fstream>

namespace {

using namespace FileNotifyTest;
using Masks = std::vector<int>;

constexpr auto kOpen = FileNotifyMessage::OPEN;
constexpr auto kAccess = FileNotifyMessage::ACCESS;
constexpr auto kModify = FileNotifyMessage::MODIFY;
constexpr auto kCloseWrite = FileNotifyMessage::CLOSE_WRITE;
constexpr auto kCloseNoWrite = FileNotifyMessage::CLOSE_NOWRITE;

class FileNotifier : public NotifierTest {};

TEST_F(FileNotifier, TellsOfAReadingOneKindOfAccessAfterTheOther) {
    const std::string file = File("shadow");
    Watch(m_folder.Path());
    InChild([&] { ReadFile(file); });
    EXPECT_EQ(MasksOf(file), (Masks{kOpen, kAccess, kCloseNoWrite}));
}

TEST_F(FileNotifier, TellsOfAWritingOneKindOfAccessAfterTheOther) {
    Watch(m_folder.Path());
    InChild([&] { WriteFile(m_folder / "authorized_keys"); });
    EXPECT_EQ(MasksOf(m_folder / "authorized_keys"), (Masks{kOpen, kModify, kCloseWrite}));
}

TEST_F(FileNotifier, NamesTheProcess) {
    const std::string file = File("shadow");
    Watch(m_folder.Path());
    const int reader = InChild([&] { ReadFile(file); });
    Settle();
    ASSERT_FALSE(m_events.empty());
    for (const auto& event : m_events) {
        EXPECT_EQ(event->GetEventProcessId(), reader);
    }
}

TEST_F(FileNotifier, DropsTheAgentsOwnAccesses) {
    const std::string file = File("shadow");
    Watch(m_folder.Path());
    { std::ifstream own(file); }
    EXPECT_TRUE(MasksOf(file).empty());
    EXPECT_GT(m_notifier.GetCounters().m_own, 0U);
}

TEST_F(FileNotifier, SaysNothingOfDirectories) {
    Make("sub");
    Watch(m_folder.Path());
    InChild([&] { ::close(::open((m_folder / "sub").c_str(), O_RDONLY | O_DIRECTORY)); });
    Settle();
    EXPECT_TRUE(m_events.empty());
    EXPECT_GT(m_notifier.GetCounters().m_changes, 0U);
    EXPECT_TRUE(m_notifier.GetCounters().Balanced());
}

TEST_F(FileNotifier, SeesAnAccessThroughASymbolicLinkUnderTheFilesOwnPath) {
    const std::string file = File("shadow");
    TestSupport::TemporaryFolder elsewhere;
    std::filesystem::create_symlink(file, elsewhere / "link");
    Watch(m_folder.Path());
    InChild([&] { ReadFile(elsewhere / "link"); });
    EXPECT_FALSE(MasksOf(file).empty());
}

TEST_F(FileNotifier, SeesAnAccessByAnOddlyWrittenPathUnderThePlainOne) {
    const std::string file = File("shadow");
    Make("sub");
    Watch(m_folder.Path());
    InChild([&] { ReadFile(m_folder.Path() + "//sub/.././shadow"); });
    EXPECT_FALSE(MasksOf(file).empty());
}

TEST_F(FileNotifier, SeesAHardLinkOnlyWhereItLiesBelowTheWatchedDirectory) {
    const std::string file = File("shadow");
    TestSupport::TemporaryFolder elsewhere;
    std::filesystem::create_hard_link(file, elsewhere / "link");
    Watch(m_folder.Path());
    InChild([&] { ReadFile(elsewhere / "link"); });
    Settle();
    EXPECT_TRUE(m_events.empty());
    EXPECT_TRUE(Sees(file));
}

TEST_F(FileNotifier, TellsEachSubscriberOnceWhateverOverlaps) {
    Make("sub");
    const std::string file = File("sub/key");
    Watch(m_folder.Path());
    Watch(m_folder / "sub");
    const auto other = std::make_shared<Framework::Inbox>("other", 64);
    m_notifier.Watch(m_folder / "sub", true, other);
    Settle();
    InChild([&] { ReadFile(file); });
    EXPECT_EQ(MasksOf(file), (Masks{kOpen, kAccess, kCloseNoWrite}));
    std::vector<std::shared_ptr<FileNotifyMessage>> others;
    Receive(other, others);
    EXPECT_EQ(others.size(), 3U);
}

TEST_F(FileNotifier, TellsNobodyAboutWhatOnlyAnotherAskedFor) {
    Make("mine");
    Make("theirs");
    const std::string file = File("theirs/key");
    Watch(m_folder / "mine");
    const auto other = std::make_shared<Framework::Inbox>("other", 64);
    m_notifier.Watch(m_folder / "theirs", true, other);
    Settle();
    InChild([&] { ReadFile(file); });
    Settle();
    EXPECT_TRUE(m_events.empty());
    EXPECT_EQ(other->Depth(), 3U);
}

TEST_F(FileNotifier, DeliversWhatHappenedBeforeARequestWasTakenBack) {
    const std::string file = File("shadow");
    Watch(m_folder.Path());
    InChild([&] { ReadFile(file); });
    Unwatch(m_folder.Path());
    EXPECT_EQ(MasksOf(file).size(), 3U);
    EXPECT_FALSE(Sees(file));
}

TEST_F(FileNotifier, KeepsWhatAFullInboxHasNoRoomFor) {
    const std::string file = File("shadow");
    m_inbox = std::make_shared<Framework::Inbox>("subscriber", 2);
    Watch(m_folder.Path());
    InChild([&] { ReadFile(file); });
    EXPECT_EQ(m_notifier.Pass(), 1) << "a full inbox is tried again soon";
    EXPECT_EQ(MasksOf(file).size(), 2U);
    EXPECT_EQ(MasksOf(file).size(), 3U);
    EXPECT_TRUE(m_notifier.GetCounters().Balanced());
}

TEST_F(FileNotifier, DropsTheRequestsOfATaskThatIsGone) {
    Watch(m_folder.Path());
    m_inbox = std::make_shared<Framework::Inbox>("next", 64);
    Settle();
    EXPECT_EQ(m_notifier.Tree().RootCount(), 0U);
    EXPECT_EQ(Marked(), 0U);
}

TEST_F(FileNotifier, AccountsForEveryEvent) {
    const std::string file = File("shadow");
    Watch(m_folder.Path());
    { std::ifstream own(file); }
    for (int i = 0; i < 100; ++i) {
        InChild([&] { ReadFile(file); });
    }
    Settle();
    const FileNotify::Counters counters = m_notifier.GetCounters();
    EXPECT_TRUE(counters.Balanced());
    EXPECT_EQ(counters.m_delivered, 300U);
    EXPECT_EQ(counters.m_overflows, 0U);
}

TEST_F(FileNotifier, ItsLedgersSayWhatItsCountersSay) {
    const std::string file = File("shadow");
    Watch(m_folder.Path());
    { std::ifstream own(file); }
    InChild([&] { ReadFile(file); });
    Settle();
    const FileNotify::Counters counters = m_notifier.GetCounters();
    const std::vector<SDK::Ledger> books = SDK::OpenLedger::ReadAll();
    ASSERT_EQ(books.size(), 2U);
    EXPECT_EQ(books[0].m_name, "file_events");
    EXPECT_EQ(books[0].m_seen, counters.m_events);
    EXPECT_EQ(books[0].m_filtered.at("own"), counters.m_own);
    EXPECT_TRUE(books[0].Balanced());
    EXPECT_EQ(
        books[0].m_kinds,
        (std::map<std::string, std::uint64_t>{
            {"open", 1}, {"access", 1}, {"modify", 0}, {"close_write", 0}, {"close_nowrite", 1}}));
    EXPECT_EQ(books[1].m_name, "file_messages");
    EXPECT_EQ(books[1].m_delivered, 3U);
    EXPECT_TRUE(books[1].Balanced());
}

TEST_F(FileNotifier, WritesItsBooksWhenItStops) {
    const std::string file = File("shadow");
    Watch(m_folder.Path());
    InChild([&] { ReadFile(file); });
    TestSupport::CapturedLog log;
    m_notifier.Stop();
    EXPECT_TRUE(
        log.Contains("File messages: 3 made, 3 delivered, 0 lost because the task was "
                     "behind, 0 because it was gone, 0 waiting."));
}

/// Opens more files, one after the other, than the kernel's queue has room for.
int Overflow(const std::string& folder) {
    std::ifstream limit("/proc/sys/fs/fanotify/max_queued_events");
    int files = 0;
    limit >> files;
    return InChild([&] {
        for (int i = 0; i <= files; ++i) {
            const std::string path = folder + '/' + std::to_string(i);
            ::close(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        }
    });
}

TEST_F(FileNotifier, CountsAndLogsAnOverflowOfTheKernelsQueueAndGoesOn) {
    Watch(m_folder.Path());
    TestSupport::CapturedLog log;
    Overflow(m_folder.Path());
    Settle();
    EXPECT_EQ(m_notifier.GetCounters().m_overflows, 1U);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR,
                        "The kernel's queue of file events (fs.fanotify.max_queued_events) was "
                        "full, 1 times so far. Events are lost, all marks are checked."),
              1U);
    EXPECT_TRUE(m_notifier.GetCounters().Balanced());
    EXPECT_TRUE(Sees(File("shadow")));
}

}  // namespace
