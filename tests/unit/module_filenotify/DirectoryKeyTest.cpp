#include "DirectoryKey.h"

#include "support/TemporaryFolder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

namespace {

using FileNotify::DirectoryKey;
using FileNotify::OpenByKey;
using FileNotify::ReadDirectoryKey;
using SDK::UniqueDescriptor;

UniqueDescriptor Open(const std::string& path) {
    return UniqueDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

ino_t Inode(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 ? status.st_ino : 0;
}

class DirectoryKeyTest : public testing::Test {
protected:
    DirectoryKeyTest() {
        std::filesystem::create_directory(m_folder / "a");
        std::filesystem::create_directory(m_folder / "b");
    }

    DirectoryKey KeyOf(const std::string& name) const {
        return ReadDirectoryKey(Open(m_folder / name).Get());
    }

    TestSupport::TemporaryFolder m_folder;
};

TEST_F(DirectoryKeyTest, TellsDirectoriesApart) {
    ASSERT_FALSE(KeyOf("a").empty());
    EXPECT_EQ(KeyOf("a"), KeyOf("a"));
    EXPECT_NE(KeyOf("a"), KeyOf("b"));
}

TEST_F(DirectoryKeyTest, StaysTheSameWhenTheDirectoryMoves) {
    const DirectoryKey before = KeyOf("a");
    std::filesystem::rename(m_folder / "a", m_folder / "b/a");
    EXPECT_EQ(KeyOf("b/a"), before);
}

TEST_F(DirectoryKeyTest, OpensTheDirectoryWhereverItIs) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const DirectoryKey key = KeyOf("a");
    std::filesystem::rename(m_folder / "a", m_folder / "b/a");
    const UniqueDescriptor moved = OpenByKey(Open(m_folder.Path()).Get(), key);
    ASSERT_TRUE(moved);
    EXPECT_EQ(Inode(moved.Get()), Inode(Open(m_folder / "b/a").Get()));
}

TEST_F(DirectoryKeyTest, OpensNothingOnceTheDirectoryIsDeleted) {
    const DirectoryKey key = KeyOf("a");
    std::filesystem::remove(m_folder / "a");
    EXPECT_FALSE(OpenByKey(Open(m_folder.Path()).Get(), key));
}

TEST_F(DirectoryKeyTest, OpensNothingForAKeyThatIsNone) {
    for (const std::string& key : {std::string(), std::string(5, 'x'), std::string(500, 'x')}) {
        EXPECT_FALSE(OpenByKey(Open(m_folder.Path()).Get(), key));
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(DirectoryKeyTest, IsEmptyWithoutADirectory) { EXPECT_TRUE(ReadDirectoryKey(-1).empty()); }

}  // namespace
