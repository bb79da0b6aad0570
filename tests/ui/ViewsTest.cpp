// View rules at sizes and values the golden frames do not reach.

#include "Fixtures.h"

#include "terminal/Palette.h"
#include "ui/Drawing.h"
#include "ui/Overlays.h"
#include "ui/PlayerView.h"
#include "ui/Screen.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace trovan;
using namespace trovan::testing;

namespace {
std::string row(const ScreenBuffer& b, int y, int from = 0, int to = -1) {
    std::string out;
    for (int x = from; x < (to < 0 ? b.width() : to); ++x)
        out += b.at(x, y).ch.view();
    return out;
}
ScreenBuffer blank(Size s) {
    return ScreenBuffer(s.width, s.height, palette::defaultStyle);
}
} // namespace

TEST(Layout, PaneWidthsAndButtonsAtTheExtremes) {
    EXPECT_EQ(Layout({73, 30}).artists.width, 22);
    EXPECT_EQ(Layout({100, 30}).artists.width, 30);
    EXPECT_EQ(Layout({200, 30}).artists.width, 40);
    // Buttons start at column 14 on narrow screens and are centred on wide ones.
    EXPECT_EQ(Layout({62, 20}).buttons.at(PlayerButton::shuffle).x, 14);
    EXPECT_EQ(Layout({200, 20}).buttons.at(PlayerButton::shuffle).x, 83);
    // Below the minimum height the lists shrink to nothing rather than go negative.
    EXPECT_EQ(Layout({80, 10}).artistsList.height, 0);
    EXPECT_EQ(Layout({80, 11}).artistsList.height, 1);
    EXPECT_EQ(Layout({0, 0}).nowPlaying.width, 0);
}

TEST(Overlays, BoxSizes) {
    int columns = 0;
    const std::tuple<int, int, int> help[] = {
        {50, 1, 48}, {143, 2, 96}, {144, 3, 142}, {200, 3, 142}};
    for (const auto& [width, cols, boxWidth] : help) {
        EXPECT_EQ(Overlays::helpBox(width, 40, &columns).width, boxWidth) << width;
        EXPECT_EQ(columns, cols) << width;
    }
    EXPECT_EQ(Overlays::rootsBox(200, 60, 3), (Rect{60, 26, 80, 7}));
    EXPECT_EQ(Overlays::rootsBox(200, 60, 0).height, 5);
    EXPECT_EQ(Overlays::rootsBox(60, 16, 40).height, 14);
}

TEST(Overlays, HelpScrollsOnlyWhenItDoesNotFit) {
    const Layout wide({200, 60}), narrow({100, 30});
    AppState s = libraryState(wide);
    s.overlay = Overlay::help();
    auto frame = [&](const Layout& l, int offset) {
        s.helpOffset = offset;
        return Screen::compose(s, l, 0, kNow).buffer;
    };
    EXPECT_EQ(frame(wide, 50), frame(wide, 0));
    // On 30 rows two columns of 29 lines do not fit: the offset moves them up to the last
    // line and no further.
    EXPECT_NE(frame(narrow, 3), frame(narrow, 0));
    EXPECT_NE(frame(narrow, 4), frame(narrow, 3));
    EXPECT_EQ(frame(narrow, 400), frame(narrow, 4));
}

TEST(PlayerView, TimeFormat) {
    const std::pair<double, const char*> cases[] = {
        {59.9, "0:59"},    {-3, "0:00"},      {75, "1:15"},          {3599.99, "59:59"},
        {3600, "1:00:00"}, {3665, "1:01:05"}, {360000, "100:00:00"}, {std::nan(""), "0:00"}};
    for (const auto& [seconds, text] : cases)
        EXPECT_EQ(PlayerView::format(seconds), text) << seconds;
    EXPECT_EQ(PlayerView::format(1e300), PlayerView::format(1e12));
}

TEST(PlayerView, ProgressVolumeAndMisshapenCover) {
    const Layout layout({100, 40});
    AppState s{Settings{}};
    s.playback.duration = 200;
    auto played = [&](double elapsed) {
        ScreenBuffer b = blank(layout.size);
        PlayerView::draw(elapsed, s, layout, b);
        int n = 0;
        for (int x = 0; x < b.width(); ++x)
            n += b.at(x, layout.progress.y).ch.view() == "━" &&
                 b.at(x, layout.progress.y).style.fg == palette::accent;
        return n;
    };
    EXPECT_EQ(played(100), 37); // of 84 − 2 × 5 cells
    EXPECT_EQ(played(500), 74);
    EXPECT_EQ(played(-20), 0);
    s.playback.duration = 0;
    EXPECT_EQ(played(100), 0);
    // The stored volume is truncated, not rounded: 0.29 stays 29 %.
    s.settings.volume = 0.29f;
    ScreenBuffer b = blank(layout.size);
    PlayerView::draw(0, s, layout, b);
    EXPECT_EQ(row(b, layout.nowPlaying.y, 91, 98), "Vol 29%");
    // A pixel grid of the wrong size falls back to the placeholder.
    const Rect& c = layout.cover;
    PlayerView::drawCover(std::vector<RGB>(99, RGB{1, 2, 3}), c, b);
    EXPECT_EQ(b.at(c.x + 5, c.y + 2).ch.view(), "♪");
}

TEST(HeaderView, StatusDisappearsWhenItExpires) {
    const Layout layout({100, 40});
    AppState s = libraryState(layout);
    const ScreenBuffer plain = Screen::compose(s, layout, 0, kNow).buffer;
    s.status = StatusMessage{"Guardado", false, kNow};
    EXPECT_EQ(Screen::compose(s, layout, 0, kNow).buffer, plain);
    EXPECT_NE(Screen::compose(s, layout, 0, kNow - std::chrono::milliseconds(1)).buffer, plain);
}

TEST(Drawing, InputScrollsToKeepTheCursorVisible) {
    // Text, cursor → what a 5-column field shows and where the cursor lands.
    const std::tuple<const char*, int, const char*, int> cases[] = {
        {"abcdefgh", 8, "efgh ", 4},
        {"abcdefgh", 2, "abcde", 2},
        {"漢字漢字", 4, "漢字 ", 4}, // wide characters are never split
    };
    for (const auto& [text, cursor, shown, column] : cases) {
        ScreenBuffer b = blank({20, 1});
        TextInput in(text);
        in.cursor = cursor;
        EXPECT_EQ(draw::input(b, in, 2, 0, 5, palette::defaultStyle), (CursorPos{2 + column, 0}));
        EXPECT_EQ(row(b, 0, 2, 7), shown) << text;
    }
}
