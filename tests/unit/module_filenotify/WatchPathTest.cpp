#include "WatchPath.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

namespace {

using FileNotify::WatchPath;

TEST(WatchPath, IsCleanedOfSlashesThatSayNothing) {
    EXPECT_EQ(WatchPath::Clean("/etc"), "/etc");
    EXPECT_EQ(WatchPath::Clean("//etc///ssh//"), "/etc/ssh");
    EXPECT_EQ(WatchPath::Clean("/"), "/");
}

TEST(WatchPath, IsEmptyWhenItWasNotAbsolute) {
    EXPECT_EQ(WatchPath::Clean(""), "");
    EXPECT_EQ(WatchPath::Clean("etc"), "");
    EXPECT_EQ(WatchPath::Clean("./etc"), "");
}

TEST(WatchPath, HasADirectoryAboveItUpToTheTop) {
    EXPECT_EQ(WatchPath::Above("/etc/ssh"), "/etc");
    EXPECT_EQ(WatchPath::Above("/etc"), "/");
    EXPECT_EQ(WatchPath::Above("/"), "/");
}

TEST(WatchPath, IsJoinedWithOneSlash) {
    EXPECT_EQ(WatchPath::Join("/etc", "shadow"), "/etc/shadow");
    EXPECT_EQ(WatchPath::Join("/", "etc"), "/etc");
}

TEST(WatchPath, LeadsToARealDirectoryThroughLinks) {
    const TestSupport::TemporaryFolder folder;
    std::filesystem::create_directory(folder / "real");
    std::filesystem::create_directory_symlink(folder / "real", folder / "link");
    EXPECT_EQ(WatchPath::RealDirectory(folder / "link"), folder / "real");
}

TEST(WatchPath, LeadsNowhereWhenThereIsNoDirectory) {
    const TestSupport::TemporaryFolder folder;
    folder.Write("file", "");
    EXPECT_EQ(WatchPath::RealDirectory(folder / "missing"), "");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(WatchPath::RealDirectory(folder / "file"), "");
    EXPECT_EQ(errno, ENOTDIR);
}

}  // namespace
