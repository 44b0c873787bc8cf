#include "FileMarks.h"

#include "NotifierHarness.h"

#include <sys/fanotify.h>

namespace {

using namespace FileNotifyTest;
using FileNotify::DirectoryMark;
using FileNotify::FanotifyEvent;

class FileMarks : public NotifierTest {
protected:
    void SetUp() override {
        NotifierTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_TRUE(m_marks.Open());
        }
    }

    DirectoryMark Mark(const std::string& path) {
        DirectoryMark mark;
        EXPECT_EQ(m_marks.Mark(Open(path).Get(), mark), 0);
        return mark;
    }
    bool Tells(const std::string& file) {
        InChild([&] { ReadFile(file); });
        bool told = false;
        m_marks.Read([&](const FanotifyEvent& event) {
            told = told || ((event.m_mask & FAN_ONDIR) == 0 && (event.m_mask & FAN_OPEN) != 0);
        });
        return told;
    }

    FileNotify::FileMarks m_marks;
};

TEST_F(FileMarks, KnowADirectoryByItsKeyAndInode) {
    const DirectoryMark mark = Mark(m_folder.Path());
    struct stat status {};
    ASSERT_EQ(::stat(m_folder.Path().c_str(), &status), 0);
    EXPECT_TRUE(mark.m_byKey);
    EXPECT_EQ(mark.m_key, FileNotify::ReadDirectoryKey(Open(m_folder.Path()).Get()));
    EXPECT_EQ(mark.m_inode, status.st_ino);
    EXPECT_EQ(mark.m_device, status.st_dev);
}

TEST_F(FileMarks, UseDescriptorsWhereKeysCannotBeHad) {
    const std::string file = File("shadow");
    FileNotify::FileMarks marks(false);
    ASSERT_TRUE(marks.Open());
    EXPECT_EQ(marks.Descriptors()[0], -1);
    DirectoryMark mark;
    ASSERT_EQ(marks.Mark(Open(m_folder.Path()).Get(), mark), 0);
    EXPECT_FALSE(mark.m_byKey);
    Strings seen;
    const auto note = [&](const FanotifyEvent& event) {
        seen.push_back(std::string(event.m_directory) + '/' + std::string(event.m_name));
    };
    InChild([&] { ReadFile(file); });
    marks.Read(note);
    EXPECT_EQ(seen, Strings{file});
    EXPECT_TRUE(marks.Unmark(mark, m_folder.Path()));
    InChild([&] { ReadFile(file); });
    marks.Read(note);
    EXPECT_EQ(seen.size(), 1U);
}

TEST_F(FileMarks, AreToldOfTheKernelsOwnFilesToo) {
    Mark("/proc/sys/kernel");
    EXPECT_TRUE(Tells("/proc/sys/kernel/ostype"));
}

TEST_F(FileMarks, AreTakenBackWhereTheDirectoryWas) {
    const std::string file = File("shadow");
    const DirectoryMark mark = Mark(m_folder.Path());
    EXPECT_TRUE(Tells(file));
    EXPECT_TRUE(m_marks.Unmark(mark, m_folder.Path()));
    EXPECT_FALSE(Tells(file));
}

TEST_F(FileMarks, AreTakenBackAfterTheDirectoryHasMoved) {
    Make("a");
    Make("b");
    const DirectoryMark mark = Mark(m_folder / "a");
    std::filesystem::rename(m_folder / "a", m_folder / "b/a");
    EXPECT_TRUE(m_marks.Unmark(mark, m_folder / "a"));
    EXPECT_FALSE(Tells(File("b/a/key")));
}

TEST_F(FileMarks, OfAnotherDirectoryAtTheSamePathStay) {
    Make("a");
    const DirectoryMark old = Mark(m_folder / "a");
    std::filesystem::rename(m_folder / "a", m_folder / "b");
    Make("a");
    Mark(m_folder / "a");
    EXPECT_TRUE(m_marks.Unmark(old, m_folder / "a"));
    EXPECT_TRUE(Tells(File("a/key")));
    EXPECT_FALSE(Tells(File("b/key")));
}

TEST_F(FileMarks, OfADirectoryWithTheInodeNumberOfADeletedOneStay) {
    // File systems give the number of a deleted directory to the next one.
    DirectoryMark old;
    DirectoryMark young;
    for (int i = 0; i < 100 && (i == 0 || old.m_inode != young.m_inode); ++i) {
        Make("a");
        old = Mark(m_folder / "a");
        std::filesystem::remove(m_folder / "a");
        Make("a");
        young = Mark(m_folder / "a");
        if (old.m_inode != young.m_inode) {
            std::filesystem::remove(m_folder / "a");
        }
    }
    if (old.m_inode != young.m_inode) {
        GTEST_SKIP() << "this file system gives every directory a number of its own";
    }
    EXPECT_TRUE(m_marks.Unmark(old, m_folder / "a"));
    EXPECT_TRUE(Tells(File("a/key")));
}

TEST_F(FileMarks, AreGoneWithTheirDirectory) {
    Make("a");
    const DirectoryMark mark = Mark(m_folder / "a");
    std::filesystem::remove(m_folder / "a");
    EXPECT_TRUE(m_marks.Unmark(mark, m_folder / "a"));
}

TEST_F(FileMarks, CannotBeSetWithoutADirectory) {
    DirectoryMark mark;
    EXPECT_EQ(m_marks.Mark(-1, mark), EBADF);
}

}  // namespace
