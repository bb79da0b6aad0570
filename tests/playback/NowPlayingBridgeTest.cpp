// What the bridge derives for clients: file URLs both ways and track ids.

#include "playback/NowPlayingBridge.h"

#include <gtest/gtest.h>

#include <string>

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

TEST(NowPlayingBridge, TrackIdsAreStableObjectPathsOfTheirOwn) {
    const std::string a = NowPlayingBridge::trackId("/m/a.flac");
    EXPECT_EQ(a, NowPlayingBridge::trackId("/m/a.flac"));
    EXPECT_NE(a, NowPlayingBridge::trackId("/m/b.flac"));
    EXPECT_NE(a, NowPlayingBridge::trackId("/m/a.flac "));
    // Object path syntax; /org/mpris is reserved for the protocol itself.
    ASSERT_EQ(a.front(), '/');
    EXPECT_NE(a.back(), '/');
    EXPECT_EQ(a.find("//"), std::string::npos);
    EXPECT_EQ(
        a.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_/"),
        std::string::npos)
        << a;
    EXPECT_NE(a.rfind("/org/mpris", 0), 0u);
}
