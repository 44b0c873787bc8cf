#include "AlarmSpool.h"

#include "support/BrokenListing.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace {

using Engine::AlarmSpool;
using Reading = Engine::AlarmSpool::Reading;
using Texts = std::vector<std::string>;

class Spool : public testing::Test {
protected:
    std::unique_ptr<AlarmSpool> Open(std::uint64_t limit = 1 << 20) {
        std::string why;
        auto spool = AlarmSpool::Open(m_folder / "spool", "place", limit, why);
        EXPECT_NE(spool, nullptr) << why;
        return spool;
    }
    static std::size_t Put(AlarmSpool& spool, const std::deque<std::string>& documents) {
        std::string why;
        return spool.Append(documents, why);
    }
    static Texts Front(AlarmSpool& spool, std::size_t most = 100) {
        Texts documents;
        std::string why;
        EXPECT_EQ(spool.Peek(most, documents, why), Reading::DONE) << why;
        return documents;
    }
    /// Why nothing can be had from the front now; empty when it can.
    static std::string WhyNot(AlarmSpool& spool, Reading expected) {
        Texts documents;
        std::string why;
        EXPECT_EQ(spool.Peek(100, documents, why), expected);
        EXPECT_EQ(documents, Texts{});
        return why;
    }
    std::string Segment(int number) const {
        return m_folder / "spool/place." + std::to_string(number) + ".jsonl";
    }
    /// Makes a file one that opens but cannot be read, as with a bad disk, until Restore.
    static void Spoil(const std::string& path) {
        std::filesystem::rename(path, path + ".away");
        std::filesystem::create_directory(path);
    }
    static void Restore(const std::string& path) {
        std::filesystem::remove(path);
        std::filesystem::rename(path + ".away", path);
    }
    /// Everything, which is taken out.
    static Texts All(AlarmSpool& spool) {
        Texts all;
        for (Texts front = Front(spool); !front.empty(); front = Front(spool)) {
            all.insert(all.end(), front.begin(), front.end());
            spool.Drop(front.size());
        }
        return all;
    }
    static std::deque<std::string> Numbers(int begin, int end) {
        std::deque<std::string> texts;
        for (int i = begin; i < end; ++i) {
            texts.push_back(std::to_string(i));
        }
        return texts;
    }
    static Texts TextsOf(const std::deque<std::string>& documents) {
        return {documents.begin(), documents.end()};
    }
    std::size_t Files() const {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder / "spool")) {
            count += entry.path().extension() == ".jsonl" ? 1 : 0;
        }
        return count;
    }

    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_folder;
};

TEST_F(Spool, GivesBackInOrderWhatItWasGiven) {
    const auto spool = Open();
    EXPECT_TRUE(spool->IsEmpty());
    EXPECT_EQ(Put(*spool, {"one", "two"}), 2U);
    EXPECT_EQ(Put(*spool, {"three"}), 1U);
    EXPECT_EQ(Front(*spool), (Texts{"one", "two", "three"}));
    EXPECT_EQ(Front(*spool, 2), (Texts{"one", "two"}));
    spool->Drop(2);
    EXPECT_EQ(spool->Count(), 1U);
    EXPECT_EQ(Front(*spool), (Texts{"three"}));
    spool->Drop(1);
    EXPECT_TRUE(spool->IsEmpty());
    EXPECT_EQ(Front(*spool), Texts{});
    EXPECT_EQ(Files(), 0U) << "what has arrived takes no room";
}

TEST_F(Spool, OutlivesItsAgent) {
    Put(*Open(), {"one", "two", "three"});
    {
        const auto spool = Open();
        EXPECT_EQ(spool->Count(), 3U);
        spool->Drop(1);
    }
    const auto spool = Open();
    EXPECT_EQ(Front(*spool), (Texts{"two", "three"}));
    Put(*spool, {"four"});
    EXPECT_EQ(Front(*spool), (Texts{"two", "three", "four"}));
}

TEST_F(Spool, DoesNotTakeTheNoteOfAnOldSegmentForOneAboutANewOne) {
    {
        const auto spool = Open();
        Put(*spool, {"one", "two"});
        spool->Drop(1);
        spool->Drop(1);
    }
    for (int i = 0; i < 3; ++i) {
        Put(*Open(), {"three"});
    }
    EXPECT_EQ(Open()->Count(), 3U);
}

TEST_F(Spool, TakesNoMoreThanItsLimitUntilThereIsRoomAgain) {
    const auto spool = Open(100);
    std::string why;
    const std::deque<std::string> documents(20, "123456789");
    EXPECT_EQ(spool->Append(documents, why), 10U);
    EXPECT_EQ(why, "the spool is full(100 bytes)");
    spool->Drop(Front(*spool).size());
    const std::size_t room = spool->Append(documents, why);
    EXPECT_GE(room, 1U);
    EXPECT_LT(room, 10U) << "room comes back segment by segment";
}

TEST_F(Spool, SpreadsOverSegmentsThatGoAsTheyArrive) {
    const auto spool = Open(800);
    Put(*spool, std::deque<std::string>(50, "123456789"));
    EXPECT_GT(Files(), 3U);
    std::size_t seen = 0;
    while (!spool->IsEmpty()) {
        const std::size_t files = Files();
        const std::size_t count = Front(*spool).size();
        ASSERT_GT(count, 0U);
        spool->Drop(count);
        seen += count;
        EXPECT_EQ(Files(), files - 1);
    }
    EXPECT_EQ(seen, 50U);
}

TEST_F(Spool, DropsWhatLiesInSeveralSegments) {
    const auto spool = Open(240);
    Put(*spool, Numbers(100, 150));
    ASSERT_GT(Files(), 3U);
    spool->Drop(60);  // as many as there are, and not more
    EXPECT_EQ(spool->Count(), 0U);
    EXPECT_EQ(Files(), 0U);

    Put(*spool, Numbers(200, 250));
    spool->Drop(33);
    EXPECT_EQ(spool->Count(), 17U);
    EXPECT_EQ(All(*spool), TextsOf(Numbers(233, 250)));
    EXPECT_EQ(Files(), 0U);
}

TEST_F(Spool, NotesHowFarItIsInTheSegmentThatADropEndsIn) {
    {
        const auto spool = Open(240);
        Put(*spool, Numbers(100, 150));
        spool->Drop(33);
    }
    const auto spool = Open(240);
    EXPECT_EQ(spool->Count(), 17U);
    EXPECT_EQ(All(*spool), TextsOf(Numbers(133, 150)));
}

TEST_F(Spool, OfAnAgentThatWasKilledBeforeAFinishedSegmentWasGoneGivesNothingTwice) {
    Put(*Open(240), Numbers(100, 150));
    const auto size = std::filesystem::file_size(m_folder / "spool/place.1.jsonl");
    m_folder.Write("spool/place.position", "1 " + std::to_string(size) + '\n');
    const auto spool = Open(240);
    EXPECT_FALSE(std::filesystem::exists(m_folder / "spool/place.1.jsonl"));
    const std::size_t gone = size / 4;
    EXPECT_EQ(spool->Count(), 50 - gone);
    EXPECT_EQ(All(*spool), TextsOf(Numbers(100 + static_cast<int>(gone), 150)));
}

TEST_F(Spool, LeavesOutTheHalfLineOfAnAgentThatWasKilled) {
    Put(*Open(), {"one", "two"});
    std::ofstream(m_folder / "spool/place.1.jsonl", std::ios::app) << "thr";
    {
        const auto spool = Open();
        EXPECT_EQ(Front(*spool), (Texts{"one", "two"}));
        Put(*spool, {"four"});
    }
    EXPECT_EQ(All(*Open()), (Texts{"one", "two", "four"}));
    EXPECT_TRUE(m_log.Contains("ends in the middle of an alarm, 3 bytes"));
}

TEST_F(Spool, KeepsADocumentWithLineEndsOnOneLine) {
    const auto spool = Open();
    Put(*spool, {"{\n  \"a\": 1\n}\n"});
    EXPECT_EQ(Front(*spool), (Texts{"{   \"a\": 1 } "}));
}

TEST_F(Spool, IsItsOwnersAlone) {
    const auto spool = Open();
    Put(*spool, {"one"});
    for (const char* path : {"spool", "spool/place.1.jsonl", "spool/place.lock"}) {
        struct stat status {};
        ASSERT_EQ(::stat((m_folder / path).c_str(), &status), 0) << path;
        EXPECT_EQ(status.st_mode & 077, 0U) << path;
    }
}

TEST_F(Spool, LeavesTheModeOfAFolderThatWasThere) {
    ::mkdir((m_folder / "spool").c_str(), 0750);
    Open();
    struct stat status {};
    ASSERT_EQ(::stat((m_folder / "spool").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0750U);
}

TEST_F(Spool, IsRefusedWhileAnotherAgentUsesIt) {
    const auto spool = Open();
    std::string why;
    EXPECT_EQ(AlarmSpool::Open(m_folder / "spool", "place", 100, why), nullptr);
    EXPECT_NE(why.find("place.lock): another agent uses this spool"), std::string::npos) << why;
    EXPECT_NE(AlarmSpool::Open(m_folder / "spool", "other", 100, why), nullptr);
}

TEST_F(Spool, IsRefusedWithItsFolderWhereThatCannotBeMade) {
    std::string why;
    EXPECT_EQ(AlarmSpool::Open("/proc/nowhere", "place", 100, why), nullptr);
    EXPECT_NE(why.find("folder(/proc/nowhere): "), std::string::npos) << why;
}

TEST_F(Spool, GivesUpOnlyTheSegmentThatIsGone) {
    const auto spool = Open(240);
    Put(*spool, Numbers(100, 150));
    const std::size_t gone = std::filesystem::file_size(Segment(1)) / 4;
    std::filesystem::remove(Segment(1));
    EXPECT_EQ(WhyNot(*spool, Reading::LOST),
              "spool file(" + Segment(1) + ") does not hold what was put there");
    EXPECT_EQ(spool->Count(), 50U) << "until somebody books it";
    EXPECT_EQ(spool->GiveUpSegment(), gone);
    EXPECT_EQ(spool->Count(), 50 - gone);
    EXPECT_EQ(All(*spool), TextsOf(Numbers(100 + static_cast<int>(gone), 150)));
}

TEST_F(Spool, GivesUpOnlyWhatIsMissingOfASegmentThatWasShortened) {
    const auto spool = Open(240);
    Put(*spool, Numbers(100, 150));
    const std::size_t held = std::filesystem::file_size(Segment(1)) / 4;
    std::filesystem::resize_file(Segment(1), 14);
    EXPECT_EQ(Front(*spool), (Texts{"100", "101", "102"}));
    spool->Drop(3);
    EXPECT_NE(WhyNot(*spool, Reading::LOST), "");
    EXPECT_EQ(spool->GiveUpSegment(), held - 3);
    EXPECT_FALSE(std::filesystem::exists(Segment(1)));
    EXPECT_EQ(All(*spool), TextsOf(Numbers(100 + static_cast<int>(held), 150)));
}

TEST_F(Spool, TakesMoreAfterItsOnlySegmentWasGivenUp) {
    const auto spool = Open();
    Put(*spool, {"one", "two"});
    std::filesystem::remove(Segment(1));
    EXPECT_NE(WhyNot(*spool, Reading::LOST), "");
    EXPECT_EQ(spool->GiveUpSegment(), 2U);
    EXPECT_TRUE(spool->IsEmpty());
    EXPECT_EQ(Put(*spool, {"three"}), 1U);
    EXPECT_EQ(Front(*spool), (Texts{"three"}));
}

TEST_F(Spool, KeepsWhatCannotBeReadNow) {
    const auto spool = Open(240);
    Put(*spool, Numbers(100, 150));
    spool->Drop(2);
    Spoil(Segment(1));
    EXPECT_EQ(WhyNot(*spool, Reading::FAILED),
              "spool file(" + Segment(1) + ") cannot be read: Is a directory");
    EXPECT_EQ(spool->Count(), 48U);
    EXPECT_EQ(Put(*spool, {"150"}), 1U);
    Restore(Segment(1));
    EXPECT_EQ(All(*spool), TextsOf(Numbers(102, 151)));
}

TEST_F(Spool, KeepsWhatCannotBeReadForWantOfADescriptor) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs descriptors itself, to look at objects through a pipe";
#endif
    const auto spool = Open();
    Put(*spool, {"one", "two"});
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string why = WhyNot(*spool, Reading::FAILED);
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_NE(why.find("cannot be read: Too many open files"), std::string::npos) << why;
    EXPECT_EQ(All(*spool), (Texts{"one", "two"}));
}

TEST_F(Spool, GivesNothingTwiceThatArrivedWhileItsSegmentCouldNotBeRead) {
    const auto spool = Open();
    Put(*spool, Numbers(100, 110));
    EXPECT_EQ(Front(*spool, 4).size(), 4U);
    Spoil(Segment(1));
    spool->Drop(4);
    EXPECT_EQ(spool->Count(), 6U);
    EXPECT_NE(WhyNot(*spool, Reading::FAILED), "");
    Restore(Segment(1));
    EXPECT_EQ(All(*spool), TextsOf(Numbers(104, 110)));
    EXPECT_TRUE(m_log.Contains("Alarms may be sent twice after a start."));
}

TEST_F(Spool, CountsASegmentThatCouldNotBeReadAtTheStartWhenItIsItsTurn) {
    {
        const auto spool = Open(240);
        Put(*spool, Numbers(100, 150));
        spool->Drop(2);
    }
    const std::size_t held = std::filesystem::file_size(Segment(1)) / 4;
    Spoil(Segment(1));
    const auto spool = Open(240);
    EXPECT_EQ(spool->Count(), 50 - held);
    EXPECT_FALSE(spool->IsEmpty());
    EXPECT_TRUE(m_log.Contains("cannot be read: Is a directory. Its alarms wait until it can."));
    EXPECT_NE(WhyNot(*spool, Reading::FAILED), "");
    Restore(Segment(1));
    EXPECT_EQ(Front(*spool, 1).size(), 1U);
    EXPECT_EQ(spool->Count(), 50U) << "those of which it is not known that they arrived";
    EXPECT_EQ(All(*spool), TextsOf(Numbers(100, 150)));
}

TEST_F(Spool, PutsNothingBehindASegmentThatCouldNotBeReadAtTheStart) {
    Put(*Open(), {"one", "two"});
    std::ofstream(Segment(1), std::ios::app) << "thr";
    Spoil(Segment(1));
    const auto spool = Open();
    EXPECT_TRUE(!spool->IsEmpty());
    EXPECT_EQ(Put(*spool, {"four"}), 1U);
    Restore(Segment(1));
    EXPECT_EQ(TestSupport::ReadText(Segment(1)), "one\ntwo\nthr") << "nothing is cut off";
    EXPECT_EQ(All(*spool), (Texts{"one", "two", "four"}));
}

TEST_F(Spool, TellsOfASegmentThatWentBeforeItsAlarmsCouldBeCounted) {
    Put(*Open(), {"one"});
    Spoil(Segment(1));
    const auto spool = Open();
    std::filesystem::remove(Segment(1));
    EXPECT_NE(WhyNot(*spool, Reading::LOST).find("went before its alarms could be counted"),
              std::string::npos);
    EXPECT_EQ(spool->GiveUpSegment(), 0U);
    EXPECT_TRUE(spool->IsEmpty());
}

TEST_F(Spool, IsRefusedWhereItsFolderCannotBeReadToTheEnd) {
    Put(*Open(240), Numbers(100, 150));
    for (const int entries : {0, 3, 5}) {
        const TestSupport::BrokenListing broken(entries);
        std::string why;
        EXPECT_EQ(AlarmSpool::Open(m_folder / "spool", "place", 240, why), nullptr);
        EXPECT_EQ(why, "folder(" + m_folder / "spool): Input/output error");
        why.clear();
        AlarmSpool::FindForgotten(m_folder / "spool", why);
        EXPECT_EQ(why, "folder(" + m_folder / "spool): Input/output error");
    }
    EXPECT_EQ(Open(240)->Count(), 50U);
}

TEST_F(Spool, IsRefusedWhereItsPositionCannotBeRead) {
    Put(*Open(), {"one"});
    std::filesystem::create_directory(m_folder / "spool/place.position");
    std::string why;
    EXPECT_EQ(AlarmSpool::Open(m_folder / "spool", "place", 100, why), nullptr);
    EXPECT_NE(why.find("place.position): Is a directory"), std::string::npos) << why;
}

TEST_F(Spool, OfAnotherNameInTheSameFolderIsNotTouched) {
    std::string why;
    const auto other = AlarmSpool::Open(m_folder / "spool", "place.2", 1000, why);
    Put(*other, {"other"});
    const auto spool = Open();
    EXPECT_TRUE(spool->IsEmpty());
    EXPECT_EQ(Front(*other), (Texts{"other"}));
}

TEST_F(Spool, FindsWhatIsLeftOfThoseThatNobodyHasOpen) {
    using Forgotten = std::map<std::string, Texts>;
    std::string why;
    const std::string folder = m_folder / "spool";
    EXPECT_EQ(AlarmSpool::FindForgotten(folder, why), Forgotten{});
    EXPECT_EQ(why, "") << "no folder, no alarms";
    const auto spool = Open();
    Put(*spool, {"one"});
    for (const char* file : {"old-2.10.jsonl", "old-2.9.jsonl", "v1.old.1.jsonl"}) {
        m_folder.Write(std::string("spool/") + file, "alarm\n");
    }
    m_folder.Write("spool/empty.1.jsonl", "");
    for (const char* file : {"x.jsonl", ".1.jsonl", "x.1y.jsonl", "x.1.json", "x..jsonl"}) {
        m_folder.Write(std::string("spool/") + file, "no segment\n");
    }
    EXPECT_EQ(AlarmSpool::FindForgotten(folder, why),
              (Forgotten{{"old-2", {folder + "/old-2.9.jsonl", folder + "/old-2.10.jsonl"}},
                         {"v1.old", {folder + "/v1.old.1.jsonl"}}}));
    EXPECT_EQ(why, "");
    AlarmSpool::FindForgotten(m_folder.Write("file", ""), why);
    EXPECT_NE(why, "");
}

}  // namespace
