#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "backup/inotify/MovedFolders.h"

namespace {

std::vector<int> away(const MovedFolders& moved) {
    std::vector<int> wds = moved.awayWatches();
    std::sort(wds.begin(), wds.end());
    return wds;
}

// Both look-ups must agree after every step: a folder is away by its
// descriptor exactly while one of its moves is unpaired.
TEST(MovedFoldersTest, AFolderIsAwayWhileOneOfItsMovesIsUnpaired) {
    MovedFolders moved;
    moved.left(1, 10);
    moved.left(2, 20);
    moved.left(3, 20);
    EXPECT_EQ(std::vector<int>({10, 20, 20}), away(moved));

    moved.arrived(2);
    EXPECT_TRUE(moved.isAway(20)) << "its other move is still unpaired";
    moved.arrived(3);
    EXPECT_FALSE(moved.isAway(20));
    moved.arrived(99);
    EXPECT_EQ(std::vector<int>({10}), away(moved));

    // A cookie seen again names its newest folder only.
    moved.left(1, 30);
    EXPECT_FALSE(moved.isAway(10));
    EXPECT_TRUE(moved.isAway(30));

    moved.left(4, 40);
    moved.left(5, 40);
    moved.returned(40);
    EXPECT_FALSE(moved.isAway(40));
    EXPECT_EQ(std::vector<int>({30}), away(moved));
    moved.arrived(4);
    EXPECT_EQ(std::vector<int>({30}), away(moved));

    moved.clear();
    EXPECT_FALSE(moved.isAway(30));
    EXPECT_TRUE(away(moved).empty());
}

}  // namespace
