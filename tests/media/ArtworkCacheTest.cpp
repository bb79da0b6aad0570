// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/ArtworkCache.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace trovan;

// Cover writes and clears run on worker threads in any order; a clear must not take the
// cover written after it for the same track, and a newer track's clear removes it.
TEST(ArtworkCache, AClearKeepsTheCoverOfItsOwnGeneration) {
    fixtures::TempDir folder;
    trovan::ArtworkCache cache(folder.path());
    const std::vector<std::uint8_t> jpeg{0xFF, 0xD8, 0xFF, 0xE0, 1, 2, 3};
    const int first = cache.next();
    const auto file = cache.write(first, jpeg);
    ASSERT_TRUE(file);
    cache.clear(first); // arrived late: the write of its own generation stays
    EXPECT_TRUE(std::filesystem::is_regular_file(*file));
    const int second = cache.next();
    EXPECT_FALSE(cache.write(first, jpeg)); // stale
    cache.clear(second);
    EXPECT_FALSE(std::filesystem::exists(*file));
}
