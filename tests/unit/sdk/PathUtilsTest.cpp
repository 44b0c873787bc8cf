#include "sdk/PathUtils.h"

#include <gtest/gtest.h>

namespace {

TEST(GetFileNameFromPath, IsWhatStandsBehindTheLastSlash) {
    using SDK::PathUtils;
    EXPECT_EQ(PathUtils::GetFileNameFromPath("/usr/bin/wget"), "wget");
    EXPECT_EQ(PathUtils::GetFileNameFromPath("wget"), "wget");
    EXPECT_EQ(PathUtils::GetFileNameFromPath("/usr/bin/"), "");
    EXPECT_EQ(PathUtils::GetFileNameFromPath(""), "");
}

}  // namespace
