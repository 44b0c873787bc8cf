#include "RecordedWatches.h"

#include <gtest/gtest.h>

namespace {

using Replay::RecordedWatches;

TEST(RecordedWatches, CoverWhatLiesBelowThem) {
    RecordedWatches watches;
    watches.Add("/etc", "/etc");
    EXPECT_TRUE(watches.Cover("/etc"));
    EXPECT_TRUE(watches.Cover("/etc/"));
    EXPECT_TRUE(watches.Cover("//etc//ssl"));
    EXPECT_FALSE(watches.Cover("/etcetera"));
    EXPECT_FALSE(watches.Cover("/"));
    EXPECT_FALSE(watches.Cover("/srv"));
}

TEST(RecordedWatches, OfTheRootCoverEverything) {
    RecordedWatches watches;
    EXPECT_FALSE(watches.Cover("/srv"));
    watches.Add("/", "/");
    EXPECT_TRUE(watches.Cover("/srv"));
    EXPECT_EQ(watches.Resolve("/srv"), "/srv");
}

TEST(RecordedWatches, LeadWhereTheyLedOnTheRecordedHost) {
    RecordedWatches watches;
    watches.Add("/link", "/data/real");
    watches.Add("/link/deeper", "/elsewhere");
    EXPECT_EQ(watches.Resolve("/link"), "/data/real");
    EXPECT_EQ(watches.Resolve("/link/below"), "/data/real/below");
    EXPECT_EQ(watches.Resolve("/link/deeper/x"), "/elsewhere/x");
    EXPECT_EQ(watches.Resolve("/other/"), "/other");
    EXPECT_TRUE(watches.Cover("/data/real/x")) << "by its real name, too";
}

TEST(RecordedWatches, OfADirectoryThatWasNotThereAtFirstAreToldAgain) {
    RecordedWatches watches;
    watches.Add("/link", "");
    EXPECT_EQ(watches.Resolve("/link"), "/link");
    watches.Add("/link", "/real");
    EXPECT_EQ(watches.Resolve("/link"), "/real");
    watches.Add("/link", "");
    EXPECT_EQ(watches.Resolve("/link"), "/real");
}

}  // namespace
