#include "ui/Layout.h"
#include "ui/Overlays.h"
#include "ui/PlayerView.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace trovan;

TEST(Layout, HundredByForty) {
    Layout l({100, 40});
    EXPECT_EQ(l.artists, (Rect{2, 2, 30, 32}));
    EXPECT_EQ(l.artistsSearch, (Rect{2, 3, 30, 1}));
    EXPECT_EQ(l.artistsList, (Rect{2, 4, 30, 30}));
    EXPECT_EQ(l.library, (Rect{35, 2, 63, 32}));
    EXPECT_EQ(l.libraryList, (Rect{35, 4, 63, 30}));
    EXPECT_EQ(l.header, (Rect{2, 0, 96, 1}));
    EXPECT_EQ(l.headerRule, 1);
    EXPECT_EQ(l.playerRule, 34);
    EXPECT_EQ(l.cover, (Rect{2, 35, 10, 5}));
    EXPECT_EQ(l.nowPlaying, (Rect{14, 35, 84, 3}));
    EXPECT_EQ(l.progress, (Rect{14, 39, 84, 1}));
    int x = 33;
    for (PlayerButton b : kPlayerButtons) {
        EXPECT_EQ(l.buttons.at(b), (Rect{x, 38, 5, 1}));
        x += 7;
    }
    EXPECT_TRUE(l.hasCoverColumn());
    EXPECT_EQ(l.minimumAlbumHeight(), 5);
}

TEST(Layout, ArtistPaneWidthAndNarrowScreens) {
    EXPECT_EQ(Layout({73, 30}).artists.width, 22);
    EXPECT_EQ(Layout({74, 30}).artists.width, 22);
    EXPECT_EQ(Layout({100, 30}).artists.width, 30);
    EXPECT_EQ(Layout({200, 30}).artists.width, 40);
    // Buttons start at column 14 up to 60 columns, centred above.
    EXPECT_EQ(Layout({60, 20}).buttons.at(PlayerButton::shuffle).x, 14);
    EXPECT_EQ(Layout({61, 20}).buttons.at(PlayerButton::shuffle).x, 14);
    EXPECT_EQ(Layout({62, 20}).buttons.at(PlayerButton::shuffle).x, 14);
    EXPECT_EQ(Layout({200, 20}).buttons.at(PlayerButton::shuffle).x, 83);
    // Eight rows: the player rule at row 2 and lists of no height.
    Layout eight({80, 8});
    EXPECT_EQ(eight.playerRule, 2);
    EXPECT_EQ(eight.artistsList.height, 0);
    EXPECT_EQ(eight.libraryList.height, 0);
    Layout nine({80, 10});
    EXPECT_EQ(nine.playerRule, 4);
    EXPECT_EQ(nine.artistsList.height, 0);
    EXPECT_EQ(Layout({80, 11}).artistsList.height, 1);
    // Nothing goes negative where a width is meant.
    Layout zero({0, 0});
    EXPECT_EQ(zero.header.width, 0);
    EXPECT_EQ(zero.library.width, 0);
    EXPECT_EQ(zero.nowPlaying.width, 0);
    EXPECT_EQ(zero.playerRule, 2);
    // The cover column needs a 50-column library pane: W − A − 7 ≥ 50.
    EXPECT_FALSE(Layout({80, 30}).hasCoverColumn()); // 80 − 24 − 7 = 49
    EXPECT_TRUE(Layout({81, 30}).hasCoverColumn());  // 81 − 24 − 7 = 50
}

TEST(Overlays, BoxSizes) {
    int c = 0;
    EXPECT_EQ(Overlays::equalizerBox(80, 24), (Rect{6, 2, 68, 20}));
    EXPECT_EQ(Overlays::equalizerBox(60, 15), (Rect{1, 1, 58, 13}));
    Rect help = Overlays::helpBox(200, 60, &c);
    EXPECT_EQ(c, 3);
    EXPECT_EQ(help.width, 142);
    help = Overlays::helpBox(100, 40, &c);
    EXPECT_EQ(c, 2);
    EXPECT_EQ(help.width, 96);
    help = Overlays::helpBox(50, 40, &c);
    EXPECT_EQ(c, 1);
    EXPECT_EQ(help.width, 48);
    EXPECT_EQ(Overlays::helpBox(143, 40, &c).width, 96); // 137 columns: still two
    EXPECT_EQ(Overlays::helpBox(144, 40, &c).width, 142);
    EXPECT_EQ(Overlays::rootsBox(200, 60, 3), (Rect{60, 26, 80, 7}));
    EXPECT_EQ(Overlays::rootsBox(200, 60, 0).height, 5);
    EXPECT_EQ(Overlays::rootsBox(60, 16, 40).height, 14);
}

TEST(PlayerView, TimeFormat) {
    EXPECT_EQ(PlayerView::format(59.9), "0:59");
    EXPECT_EQ(PlayerView::format(-3), "0:00");
    EXPECT_EQ(PlayerView::format(75), "1:15");
    EXPECT_EQ(PlayerView::format(3599.99), "59:59");
    EXPECT_EQ(PlayerView::format(3600), "1:00:00");
    EXPECT_EQ(PlayerView::format(3665), "1:01:05");
    EXPECT_EQ(PlayerView::format(360000), "100:00:00");
    EXPECT_EQ(PlayerView::format(std::nan("")), "0:00");
    EXPECT_EQ(PlayerView::format(1e300), PlayerView::format(1e12));
}
