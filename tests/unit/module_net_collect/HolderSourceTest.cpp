#include "HolderSource.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

TEST(Holders, AreSortedAndEachOnce) {
    NetCollect::Holders holders{{1, {30, 10, 30, 20, 10}}, {2, {5}}};
    NetCollect::SortHolders(holders);
    EXPECT_EQ(holders[1], (std::vector<int>{10, 20, 30}));
    EXPECT_EQ(holders[2], std::vector<int>{5});
}

}  // namespace
