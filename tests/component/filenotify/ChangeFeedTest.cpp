#include "ChangeFeed.h"

#include "support/TemporaryFolder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <filesystem>
#include <utility>
#include <vector>

namespace {

using FileNotify::ChangeFeed;
using Changes = std::vector<std::pair<std::uint32_t, std::string>>;

class ChangeFeedTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(m_feed.Open(), 0); }

    int Add(const std::string& path) {
        const SDK::UniqueDescriptor directory(
            ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return m_feed.Add(directory.Get());
    }
    Changes Read() {
        Changes changes;
        m_feed.Read([&](const ChangeFeed::Change& change) {
            changes.emplace_back(change.m_mask, std::string(change.m_name));
        });
        return changes;
    }

    TestSupport::TemporaryFolder m_folder;
    ChangeFeed m_feed;
};

TEST_F(ChangeFeedTest, TellsWhatIsMadeAndMoved) {
    ASSERT_GE(Add(m_folder.Path()), 0);
    std::filesystem::create_directory(m_folder / "a");
    std::filesystem::rename(m_folder / "a", m_folder / "b");
    m_folder.Write("file", "");
    EXPECT_EQ(Read(), (Changes{{IN_CREATE | IN_ISDIR, "a"},
                               {IN_MOVED_FROM | IN_ISDIR, "a"},
                               {IN_MOVED_TO | IN_ISDIR, "b"},
                               {IN_CREATE, "file"}}));
}

TEST_F(ChangeFeedTest, TellsTheEndOfADeletedDirectory) {
    std::filesystem::create_directory(m_folder / "a");
    ASSERT_GE(Add(m_folder / "a"), 0);
    std::filesystem::remove(m_folder / "a");
    EXPECT_EQ(Read(), (Changes{{IN_IGNORED, ""}}));
}

TEST_F(ChangeFeedTest, GivesADirectoryOneNumber) {
    const int watch = Add(m_folder.Path());
    EXPECT_EQ(Add(m_folder.Path()), watch);
    std::filesystem::create_directory(m_folder / "a");
    EXPECT_NE(Add(m_folder / "a"), watch);
}

TEST_F(ChangeFeedTest, IsSilentAboutWhatIsNoLongerWatched) {
    m_feed.Remove(Add(m_folder.Path()));
    m_folder.Write("file", "");
    EXPECT_EQ(Read(), (Changes{{IN_IGNORED, ""}}));
}

TEST_F(ChangeFeedTest, HandsOverMoreThanOneBufferFull) {
    ASSERT_GE(Add(m_folder.Path()), 0);
    for (int i = 0; i < 2000; ++i) {
        m_folder.Write(std::to_string(i), "");
    }
    EXPECT_EQ(Read().size(), 2000U);
}

TEST_F(ChangeFeedTest, RefusesWhatIsNoDirectory) {
    const SDK::UniqueDescriptor file(
        ::open(m_folder.Write("file", "").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(m_feed.Add(file.Get()), -ENOTDIR);
}

TEST_F(ChangeFeedTest, HasNothingToTellWhenItIsClosed) {
    m_feed.Close();
    EXPECT_EQ(m_feed.Descriptor(), -1);
    EXPECT_TRUE(Read().empty());
}

}  // namespace
