#include "sdk/PathUtils.h"

#include <gtest/gtest.h>

namespace {

using SDK::PathUtils;

TEST(GetFileNameFromPath, IsWhatStandsBehindTheLastSlash) {
    EXPECT_EQ(PathUtils::GetFileNameFromPath("/usr/bin/wget"), "wget");
    EXPECT_EQ(PathUtils::GetFileNameFromPath("wget"), "wget");
    EXPECT_EQ(PathUtils::GetFileNameFromPath("/usr/bin/"), "");
    EXPECT_EQ(PathUtils::GetFileNameFromPath(""), "");
}

TEST(PathUtils, RemovesSlashesThatSayNothing) {
    EXPECT_EQ(PathUtils::RemoveIdleSlashes("/etc"), "/etc");
    EXPECT_EQ(PathUtils::RemoveIdleSlashes("//etc///ssh//"), "/etc/ssh");
    EXPECT_EQ(PathUtils::RemoveIdleSlashes("///"), "/");
    EXPECT_EQ(PathUtils::RemoveIdleSlashes("etc/"), "etc");
    EXPECT_EQ(PathUtils::RemoveIdleSlashes(""), "");
}

TEST(PathUtils, FindsAPathWithinItselfAndWhatIsAboveIt) {
    EXPECT_TRUE(PathUtils::IsWithin("/etc", "/etc"));
    EXPECT_TRUE(PathUtils::IsWithin("/etc/ssh/key", "/etc"));
    EXPECT_TRUE(PathUtils::IsWithin("/etc", "/"));
    EXPECT_FALSE(PathUtils::IsWithin("/etc-old/key", "/etc"));
    EXPECT_FALSE(PathUtils::IsWithin("/et", "/etc"));
}

}  // namespace
