// SPDX-License-Identifier: GPL-3.0-or-later
// File URLs both ways, as clients send and receive them.

#include "playback/NowPlayingBridge.h"
#include "media/ArtworkCache.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace trovan;

TEST(NowPlayingBridge, FileUrlsRoundTripAndOthersAreRefused) {
    for (const std::string path : {"/m\xC3\xBAsica/A\xC3\xB1o 1/canci\xC3\xB3n #1?.flac",
                                   "/a%20b/c d.flac", "/x/'\"[]&;.mp3"}) {
        const std::string url = NowPlayingBridge::fileUrl(path);
        EXPECT_EQ(url.rfind("file:///", 0), 0u) << url;
        EXPECT_EQ(url.find_first_of(" #?'\"\x80\xC3"), std::string::npos) << url;
        EXPECT_EQ(NowPlayingBridge::pathFromFileUrl(url), path) << url;
    }
    EXPECT_EQ(NowPlayingBridge::pathFromFileUrl("file://localhost/a.flac"), "/a.flac");
    EXPECT_EQ(NowPlayingBridge::pathFromFileUrl("FILE:///a%C3%B1.flac"), "/a\xC3\xB1.flac");
    for (const char* url : {"http://x/a.flac", "file:/a.flac", "file://host/a.flac", "file:///a%2",
                            "file:///a%zz", "file:///a%00b", "file:///a#b", "/plain/path", ""})
        EXPECT_EQ(NowPlayingBridge::pathFromFileUrl(url), std::nullopt) << url;
}

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
