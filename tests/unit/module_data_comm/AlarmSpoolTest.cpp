#include "AlarmSpool.h"

#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace {

using Engine::AlarmSpool;
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
    static Texts Front(const AlarmSpool& spool, std::size_t most = 100) {
        std::string why;
        return spool.Peek(most, why);
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
    EXPECT_EQ(Front(*Open()), (Texts{"one", "two", "four"}));
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

TEST_F(Spool, TellsWhenItsFilesWereTakenAway) {
    const auto spool = Open();
    Put(*spool, {"one", "two"});
    std::filesystem::remove(m_folder / "spool/place.1.jsonl");
    std::string why;
    EXPECT_EQ(spool->Peek(5, why), Texts{});
    EXPECT_NE(why.find("place.1.jsonl) does not hold what was put there"), std::string::npos);
    EXPECT_EQ(spool->Clear(), 2U);
    EXPECT_EQ(Put(*spool, {"three"}), 1U);
    EXPECT_EQ(Front(*spool), (Texts{"three"}));
}

TEST_F(Spool, OfAnotherNameInTheSameFolderIsNotTouched) {
    std::string why;
    const auto other = AlarmSpool::Open(m_folder / "spool", "place.2", 1000, why);
    Put(*other, {"other"});
    const auto spool = Open();
    EXPECT_TRUE(spool->IsEmpty());
    EXPECT_EQ(Front(*other), (Texts{"other"}));
}

}  // namespace
