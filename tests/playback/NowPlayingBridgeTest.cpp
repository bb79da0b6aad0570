// File URLs both ways, as clients send and receive them.

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
