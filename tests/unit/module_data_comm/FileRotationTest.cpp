#include "outputs/FileRotation.h"

#include "support/BrokenListing.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

using Engine::FileRotation;
using TestSupport::ReadText;

class FileRotationTest : public testing::Test {
protected:
    /// Rotates a file with a text. @return why it could not; empty when it could
    std::string Rotate(const std::string& text, int keep) const {
        m_folder.Write("alarms", text);
        std::string why;
        const SDK::UniqueDescriptor fresh = FileRotation(m_path, 1, keep).Rotate(why);
        EXPECT_EQ(static_cast<bool>(fresh), why.empty());
        if (fresh) {
            EXPECT_EQ(::write(fresh.Get(), "new\n", 4), 4);
        }
        return why;
    }
    std::string Text(const std::string& number) const { return ReadText(m_path + '.' + number); }
    bool Exists(const std::string& number) const { return fs::exists(m_path + '.' + number); }

    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "alarms";
};

TEST_F(FileRotationTest, IsDueWhenTheNextLineWouldNotFit) {
    const FileRotation rotation(m_path, 100, 1);
    EXPECT_FALSE(rotation.IsDue(90, 10));
    EXPECT_TRUE(rotation.IsDue(90, 11));
    EXPECT_TRUE(rotation.IsDue(200, 1));
}

TEST_F(FileRotationTest, IsNeverDueForAnEmptyFileNorWithoutALimit) {
    EXPECT_FALSE(FileRotation(m_path, 100, 1).IsDue(0, 1000));
    EXPECT_FALSE(FileRotation(m_path, 0, 1).IsDue(1000, 1000));
}

TEST_F(FileRotationTest, MovesEachFileOneUpAndLosesTheOldest) {
    for (const char* text : {"a\n", "b\n", "c\n", "d\n"}) {
        EXPECT_EQ(Rotate(text, 3), "");
    }
    EXPECT_EQ(ReadText(m_path), "new\n");
    EXPECT_EQ(Text("1"), "d\n");
    EXPECT_EQ(Text("2"), "c\n");
    EXPECT_EQ(Text("3"), "b\n");
    EXPECT_FALSE(Exists("4"));
    EXPECT_FALSE(Exists("0"));
}

TEST_F(FileRotationTest, KeepsOneWhenOneIsToBeKept) {
    EXPECT_EQ(Rotate("a\n", 1), "");
    EXPECT_EQ(Rotate("b\n", 1), "");
    EXPECT_EQ(Text("1"), "b\n");
    EXPECT_FALSE(Exists("2"));
}

TEST_F(FileRotationTest, FillsAGapInsteadOfLosingTheOldest) {
    m_folder.Write("alarms.1", "b\n");
    m_folder.Write("alarms.3", "a\n");
    EXPECT_EQ(Rotate("c\n", 3), "");
    EXPECT_EQ(Text("1") + Text("2") + Text("3"), "c\nb\na\n");
}

TEST_F(FileRotationTest, RemovesWhatIsMoreThanMayBeKeptAndNothingThatIsNotItsOwn) {
    for (const char* number : {"1", "2", "9", "999"}) {
        m_folder.Write(std::string("alarms.") + number, "old\n");
    }
    for (const char* other : {"1000", "01", "5x", "20261121", "9.gz", "-5", "", "0x1"}) {
        m_folder.Write(std::string("alarms.") + other, "other\n");
    }
    m_folder.Write("alarms2", "other\n");
    EXPECT_EQ(Rotate("new\n", 2), "");
    EXPECT_TRUE(Exists("1") && Exists("2"));
    EXPECT_FALSE(Exists("9") || Exists("999"));
    for (const char* other : {"1000", "01", "5x", "20261121", "9.gz", "-5", "", "0x1"}) {
        EXPECT_EQ(Text(other), "other\n") << other;
    }
    EXPECT_TRUE(fs::exists(m_path + '2'));
}

TEST_F(FileRotationTest, GivesTheNewFileTheModeAndOwnerOfTheOld) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "giving files away needs root";
    }
    m_folder.Write("alarms", "text\n");
    ASSERT_EQ(::chown(m_path.c_str(), 12345, 23456), 0);
    ASSERT_EQ(::chmod(m_path.c_str(), 0604), 0);
    EXPECT_EQ(Rotate("text\n", 1), "");
    struct stat status {};
    ASSERT_EQ(::stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 12345U);
    EXPECT_EQ(status.st_gid, 23456U);
    EXPECT_EQ(status.st_mode & 07777U, 0604U);
}

TEST_F(FileRotationTest, LeavesEverythingWhereItIsWhenARenameFails) {
    ASSERT_EQ(::mkdir((m_path + ".1").c_str(), 0700), 0);
    EXPECT_EQ(Rotate("text\n", 3), "renaming it to(" + m_path + ".1): Is a directory");
    EXPECT_EQ(ReadText(m_path), "text\n");
    EXPECT_FALSE(Exists("0"));
}

TEST_F(FileRotationTest, DoesNotFollowASymbolicLink) {
    const std::string target = m_folder.Write("target", "text\n");
    fs::create_symlink(target, m_path);
    EXPECT_EQ(Rotate("text\n", 3), "it is a symbolic link");
    EXPECT_TRUE(fs::is_symlink(m_path));
    EXPECT_EQ(ReadText(target), "text\n");
}

TEST_F(FileRotationTest, IsNotHinderedByWhatAKilledAgentLeft) {
    m_folder.Write("alarms.0", "half made");
    EXPECT_EQ(Rotate("text\n", 1), "");
    EXPECT_EQ(ReadText(m_path), "new\n");
    EXPECT_FALSE(Exists("0"));
}

TEST_F(FileRotationTest, FindsItsFilesInTheFolderOfTheProcessToo) {
    const fs::path before = fs::current_path();
    fs::current_path(m_folder.Path());
    m_folder.Write("alarms", "b\n");
    m_folder.Write("alarms.1", "a\n");
    std::string why;
    EXPECT_TRUE(FileRotation("alarms", 1, 3).Rotate(why)) << why;
    fs::current_path(before);
    EXPECT_EQ(Text("1") + Text("2"), "b\na\n");
}

TEST_F(FileRotationTest, MakesRoomOldestFirstAndSaysHowMuch) {
    m_folder.Write("alarms", "text\n");
    m_folder.Write("alarms.2", "12345\n");
    m_folder.Write("alarms.10", "123\n");
    m_folder.Write("alarms.050", "other\n");
    m_folder.Write("alarms.50x", "other\n");
    const FileRotation rotation(m_path, 0, 8);
    EXPECT_TRUE(rotation.RemoveOldest());
    EXPECT_FALSE(Exists("10"));
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_WARNING,
                          "Output file(" + m_path + ") has no space: " + m_path +
                              ".10 with 4 bytes of alarms was removed"),
              1U);
    EXPECT_TRUE(rotation.RemoveOldest());
    EXPECT_FALSE(Exists("2"));
    EXPECT_FALSE(rotation.RemoveOldest());
    EXPECT_EQ(ReadText(m_path), "text\n") << "never the one that is written";
}

TEST_F(FileRotationTest, LeavesEverythingWhereItIsWhenItsFolderCannotBeReadToTheEnd) {
    m_folder.Write("alarms.1", "b\n");
    m_folder.Write("alarms.2", "a\n");
    for (const int entries : {0, 3, 4}) {
        const TestSupport::BrokenListing broken(entries);
        EXPECT_EQ(Rotate("c\n", 3), "folder(" + m_folder.Path() + "): Input/output error");
        EXPECT_FALSE(FileRotation(m_path, 1, 3).RemoveOldest());
    }
    EXPECT_EQ(ReadText(m_path) + Text("1") + Text("2"), "c\nb\na\n");
    EXPECT_FALSE(Exists("0"));
    EXPECT_TRUE(
        m_log.Contains("gets no space: folder(" + m_folder.Path() + "): Input/output error"));
}

}  // namespace
