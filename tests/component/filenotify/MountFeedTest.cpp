#include "MountFeed.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>

#include <cstdlib>

namespace {

TEST(MountFeed, TellsOnceOfWhatIsMountedAndUnmounted) {
    // In a namespace of its own, where nobody else mounts.
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        ASSERT_EQ(std::getenv("CI"), nullptr) << "needs root";
        GTEST_SKIP() << "needs root";
    }
    const TestSupport::TemporaryFolder folder;
    FileNotify::MountFeed mounts;
    mounts.Open();
    EXPECT_FALSE(mounts.Changed());
    ASSERT_EQ(::mount("none", folder.Path().c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_TRUE(mounts.Changed());
    EXPECT_FALSE(mounts.Changed());
    ASSERT_EQ(::umount(folder.Path().c_str()), 0);
    EXPECT_TRUE(mounts.Changed());
    EXPECT_FALSE(mounts.Changed());
}

TEST(MountFeed, TellsNothingWhileItIsClosed) {
    FileNotify::MountFeed mounts;
    EXPECT_FALSE(mounts.Changed());
    mounts.Open();
    mounts.Close();
    EXPECT_FALSE(mounts.Changed());
}

}  // namespace
