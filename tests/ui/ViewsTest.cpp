// Focused checks of view rules that the golden frames only show in passing.

#include "Fixtures.h"

#include "terminal/Palette.h"
#include "ui/Drawing.h"
#include "ui/HeaderView.h"
#include "ui/PlayerView.h"
#include "ui/Screen.h"

#include <gtest/gtest.h>

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

TEST(HeaderView, StatusMessageExpiresAfterItsTime) {
    const Layout layout({100, 40});
    AppState s = libraryState(layout);
    s.status = StatusMessage{"Guardado", false, kNow + std::chrono::milliseconds(100)};
    ScreenBuffer b = blank(layout.size);
    HeaderView::draw(s, layout, b, kNow); // 3.9 s after the report
    EXPECT_NE(row(b, 0).find("Guardado"), std::string::npos);
    EXPECT_EQ(b.at(97, 0).style.fg, palette::accent);
    b = blank(layout.size);
    HeaderView::draw(s, layout, b, kNow + std::chrono::milliseconds(100)); // 4.0 s
    EXPECT_EQ(row(b, 0).find("Guardado"), std::string::npos);
    EXPECT_NE(row(b, 0).find("15 canciones · 8 artistas"), std::string::npos);
    s.indexing = IndexingProgress{0, 0};
    b = blank(layout.size);
    HeaderView::draw(s, layout, b, kNow);
    EXPECT_NE(row(b, 0).find("Buscando archivos…"), std::string::npos);
}

TEST(PlayerView, ProgressVolumeCoverAndButtons) {
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
    // The bar is 84 − 2 × 5 = 74 cells.
    EXPECT_EQ(played(0), 0);
    EXPECT_EQ(played(100), 37);
    EXPECT_EQ(played(200), 74);
    EXPECT_EQ(played(500), 74);
    EXPECT_EQ(played(-20), 0);
    s.playback.duration = 0;
    EXPECT_EQ(played(100), 0);

    // Volume is shown as the stored value, truncated: 0.29 stays 29 %.
    s.settings.volume = 0.29f;
    ScreenBuffer b = blank(layout.size);
    PlayerView::draw(0, s, layout, b);
    EXPECT_EQ(row(b, layout.nowPlaying.y, 91, 98), "Vol 29%");

    // A cover grid of the wrong size falls back to the placeholder; the right size draws.
    const Rect& c = layout.cover;
    b = blank(layout.size);
    PlayerView::drawCover(std::vector<RGB>(99, RGB{1, 2, 3}), c, b);
    EXPECT_EQ(b.at(c.x + 5, c.y + 2).ch.view(), "♪");
    b = blank(layout.size);
    std::vector<RGB> px(100);
    for (int i = 0; i < 100; ++i)
        px[static_cast<std::size_t>(i)] = RGB{static_cast<std::uint8_t>(i), 0, 0};
    PlayerView::drawCover(px, c, b);
    EXPECT_EQ(b.at(c.x + 3, c.y + 2).ch.view(), "▀");
    EXPECT_EQ(b.at(c.x + 3, c.y + 2).style.fg, (RGB{43, 0, 0})); // pixel (3, 4)
    EXPECT_EQ(b.at(c.x + 3, c.y + 2).style.bg, (RGB{53, 0, 0})); // pixel (3, 5)

    // The selected button is highlighted only while the player has the focus.
    s.playerButton = PlayerButton::repeatMode;
    const Rect& r = layout.buttons.at(PlayerButton::repeatMode);
    b = blank(layout.size);
    PlayerView::draw(0, s, layout, b);
    EXPECT_EQ(b.at(r.x, r.y).style.bg, palette::background);
    s.focus = Focus::player;
    b = blank(layout.size);
    PlayerView::draw(0, s, layout, b);
    EXPECT_EQ(b.at(r.x, r.y).style.bg, palette::selectionFocused);
}

TEST(Drawing, InputScrollsToKeepTheCursorVisible) {
    ScreenBuffer b = blank({20, 1});
    TextInput in("abcdefgh");
    CursorPos p = draw::input(b, in, 2, 0, 5, palette::defaultStyle);
    EXPECT_EQ(row(b, 0, 2, 7), "efgh ");
    EXPECT_EQ(p, (CursorPos{6, 0}));
    in.cursor = 2;
    b = blank({20, 1});
    p = draw::input(b, in, 2, 0, 5, palette::defaultStyle);
    EXPECT_EQ(row(b, 0, 2, 7), "abcde");
    EXPECT_EQ(p, (CursorPos{4, 0}));
    // Wide characters count two columns and are never split.
    in = TextInput("漢字漢字");
    b = blank({20, 1});
    p = draw::input(b, in, 0, 0, 5, palette::defaultStyle);
    EXPECT_EQ(row(b, 0, 0, 5), "漢字 "); // the last two, then room for the cursor
    EXPECT_EQ(p, (CursorPos{4, 0}));
}

TEST(AppState, ViewportScrollingAndOverlayEquality) {
    ListViewport v{10, 5};
    v.scrollToCursor(4); // moving down: the cursor ends on the last line
    EXPECT_EQ(v.offset, 7);
    v.cursor = 7;
    v.scrollToCursor(4); // moving up: one row of context stays above
    EXPECT_EQ(v.offset, 6);
    v.cursor = 0;
    v.scrollToCursor(4);
    EXPECT_EQ(v.offset, 0);
    v = {3, 9};
    v.scrollToCursor(0);
    EXPECT_EQ(v.offset, 9);
    EXPECT_NE(Overlay::prompt(PromptKind::command), Overlay::prompt(PromptKind::search));
    EXPECT_EQ(Overlay::prompt(PromptKind::seek), Overlay::prompt(PromptKind::seek));
    EXPECT_EQ(Overlay::help(), (Overlay{Overlay::Kind::help, PromptKind::seek}));
}

TEST(Overlays, HelpThatFitsDoesNotScroll) {
    const Layout wide({200, 60}), narrow({100, 30});
    AppState s = libraryState(wide);
    s.overlay = Overlay::help();
    const Frame top = Screen::compose(s, wide, 0, kNow);
    s.helpOffset = 50;
    EXPECT_EQ(Screen::compose(s, wide, 0, kNow).buffer, top.buffer);
    // On 30 rows the two columns of 29 lines do not fit: the offset moves them, up to
    // the last line and no further.
    s.helpOffset = 0;
    const Frame first = Screen::compose(s, narrow, 0, kNow);
    s.helpOffset = 3;
    const Frame third = Screen::compose(s, narrow, 0, kNow);
    EXPECT_NE(first.buffer, third.buffer);
    s.helpOffset = 4;
    const Frame last = Screen::compose(s, narrow, 0, kNow);
    s.helpOffset = 400;
    EXPECT_EQ(Screen::compose(s, narrow, 0, kNow).buffer, last.buffer);
    EXPECT_NE(third.buffer, last.buffer);
}
