// SPDX-License-Identifier: GPL-3.0-or-later
// Pictures on the terminal: reading the start-up replies, choosing how to draw, and the
// renderer's picture bookkeeping (the sixel pictures themselves are checked in a real
// xterm).

#include "terminal/GraphicsProbe.h"
#include "terminal/Renderer.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace trovan;

TEST(GraphicsProbe, ReadsRepliesInAnyPiecesAndKeepsTypedBytes) {
    struct Case {
        const char* name;
        std::string bytes;
        bool done, kitty, sixel;
        int cellWidth, cellHeight, registers;
        std::string typed;
    };
    const Case cases[] = {
        {"kitty", "\x1b_Gi=31;OK\x1b\\\x1b[6;20;10t\x1b[?62;22c", true, true, false, 10, 20, 0, ""},
        {"xterm vt340", "\x1b[6;17;9t\x1b[?1;0;1024S\x1b[?63;1;2;4;6;9;15;22c", true, false, true,
         9, 17, 1024, ""},
        {"refused kitty", "\x1b_Gi=31;ENOTSUPPORTED:no\x1b\\\x1b[?62c", true, false, false, 0, 0, 0,
         ""},
        {"keys around", "j\x1b[?62;4cq", true, false, true, 0, 0, 0, "jq"},
        {"half an answer", "\x1b_Gi=31;OK\x1b\\\x1b[6;20", false, true, false, 0, 0, 0,
         "\x1b[6;20"},
        {"garbage", "\x1b[6;0;-5t\x1b[?1;3;0S\x1bZ\x1b[?c", true, false, false, 0, 0, 0, "\x1bZ"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // Whole, and one byte at a time.
        for (bool split : {false, true}) {
            GraphicsProbe::Parser p;
            if (split)
                for (char b : c.bytes)
                    p.feed(std::string_view(&b, 1));
            else
                p.feed(c.bytes);
            p.finish();
            EXPECT_EQ(p.done, c.done);
            EXPECT_EQ(p.found.kitty, c.kitty);
            EXPECT_EQ(p.found.sixel, c.sixel);
            EXPECT_EQ(p.found.cellWidth, c.cellWidth);
            EXPECT_EQ(p.found.cellHeight, c.cellHeight);
            EXPECT_EQ(p.found.colorRegisters, c.registers);
            EXPECT_EQ(p.typed, c.typed);
        }
    }
}

TEST(GraphicsProbe, ChoosesImagesOnlyWithACellSizeAndSixelNeverThroughTmux) {
    using P = GraphicsProtocol;
    TerminalGraphics both{true, true, false, 10, 20, 0};
    TerminalGraphics sixelOnly{false, true, false, 9, 17, 16};
    TerminalGraphics noSize{true, true, false, 0, 20, 0};
    TerminalGraphics tmux{true, false, true, 10, 20, 0};
    EXPECT_EQ(chooseGraphics(both, CoverMode::automatic).protocol, P::kitty);
    EXPECT_EQ(chooseGraphics(both, CoverMode::sixel).protocol, P::sixel);
    EXPECT_EQ(chooseGraphics(both, CoverMode::blocks).protocol, P::none);
    EXPECT_EQ(chooseGraphics(sixelOnly, CoverMode::automatic).protocol, P::sixel);
    EXPECT_EQ(chooseGraphics(sixelOnly, CoverMode::automatic).colorRegisters, 16);
    EXPECT_EQ(chooseGraphics(sixelOnly, CoverMode::kitty).protocol, P::kitty);
    EXPECT_EQ(chooseGraphics(noSize, CoverMode::kitty).protocol, P::none);
    EXPECT_EQ(chooseGraphics(tmux, CoverMode::automatic).protocol, P::kitty);
    EXPECT_TRUE(chooseGraphics(tmux, CoverMode::automatic).passthrough);
    EXPECT_EQ(chooseGraphics(tmux, CoverMode::sixel).protocol, P::none);
    EXPECT_EQ(GraphicsProbe::host("xterm", nullptr, nullptr), GraphicsProbe::Host::terminal);
    EXPECT_EQ(GraphicsProbe::host("xterm", "/tmp/t,1,0", nullptr), GraphicsProbe::Host::tmux);
    EXPECT_EQ(GraphicsProbe::host("screen.xterm", nullptr, nullptr), GraphicsProbe::Host::screen);
    EXPECT_EQ(GraphicsProbe::host("dumb", nullptr, nullptr), GraphicsProbe::Host::silent);
    EXPECT_EQ(GraphicsProbe::host(nullptr, nullptr, nullptr), GraphicsProbe::Host::silent);
}

namespace {

std::shared_ptr<const PixelImage> gradient(int w, int h) {
    std::vector<std::uint8_t> rgb;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            rgb.push_back(static_cast<std::uint8_t>(x * 255 / (w - 1)));
            rgb.push_back(static_cast<std::uint8_t>(y * 255 / (h - 1)));
            rgb.push_back(x < w / 2 ? 200 : 30);
        }
    return PixelImage::make(w, h, std::move(rgb));
}

} // namespace

// Sixel pictures are drawn after their cells, again only when those cells were drawn;
// the cells a picture leaves are erased and drawn again.
TEST(Renderer, SixelPicturesAreRedrawnOnlyWhenTheirCellsAre) {
    Renderer r;
    r.setGraphics(GraphicsProtocol::sixel);
    const auto image = gradient(40, 60); // 4 × 3 cells of 10 × 20 pixels
    const Style plain{};
    auto frame = [&](int y) {
        ScreenBuffer b(20, 10, plain);
        if (y >= 0) b.placeImage(image, Rect{2, y, 4, 3}, Rect{0, 0, 20, 10}, plain);
        return b;
    };
    const std::string first = r.render(frame(1), std::nullopt);
    EXPECT_NE(first.find("\x1b[2;3H\x1bP"), std::string::npos);
    EXPECT_EQ(r.render(frame(1), std::nullopt).find("\x1bP"), std::string::npos);
    ScreenBuffer changed = frame(1);
    changed.text("x", 3, 2, 1, plain);
    // A changed cell under the picture: the picture is drawn over it again.
    std::string again = r.render(changed, std::nullopt);
    // (a cell written into the picture's area is not one of its blanks, but the
    // picture still covers it)
    EXPECT_NE(again.find("\x1bP"), std::string::npos);
    const std::string moved = r.render(frame(5), std::nullopt);
    EXPECT_NE(moved.find("\x1b[2;3H\x1b[0m\x1b[4X"), std::string::npos); // old rows erased
    EXPECT_NE(moved.find("\x1b[6;3H\x1bP"), std::string::npos);
    const std::string gone = r.render(frame(-1), std::nullopt);
    EXPECT_EQ(gone.find("\x1bP"), std::string::npos);
    EXPECT_NE(gone.find("\x1b[8;3H\x1b[0m\x1b[4X"), std::string::npos);
}

// Kitty pictures are sent once: drawing a picture again only places it, moving it places it
// anew, and one that leaves the screen loses its placement but keeps its data for when it
// comes back.
TEST(Renderer, KittyPicturesAreSentOnceAndPlacedWhereTheirCellsAre) {
    Renderer r;
    r.setGraphics(GraphicsProtocol::kitty);
    const auto image = gradient(40, 60);
    const Style plain{};
    auto frame = [&](int y) {
        ScreenBuffer b(20, 10, plain);
        if (y >= 0) b.placeImage(image, Rect{2, y, 4, 3}, Rect{0, 0, 20, 10}, plain);
        return b;
    };
    auto sends = [](const std::string& out) {
        int n = 0;
        for (auto at = out.find("\x1b_Ga=t,"); at != std::string::npos;
             at = out.find("\x1b_Ga=t,", at + 1))
            ++n;
        return n;
    };
    const std::string first = r.render(frame(1), std::nullopt);
    EXPECT_EQ(sends(first), 1);
    EXPECT_NE(first.find("s=40,v=60,"), std::string::npos);
    EXPECT_NE(first.find("\x1b[2;3H\x1b_Ga=p,"), std::string::npos);
    EXPECT_EQ(r.render(frame(1), std::nullopt).find("\x1b_G"), std::string::npos);
    const std::string moved = r.render(frame(5), std::nullopt);
    EXPECT_EQ(sends(moved), 0);
    EXPECT_NE(moved.find("\x1b[6;3H\x1b_Ga=p,"), std::string::npos);
    EXPECT_NE(r.render(frame(-1), std::nullopt).find("\x1b_Ga=d,d=i,"), std::string::npos);
    const std::string back = r.render(frame(1), std::nullopt);
    EXPECT_EQ(sends(back), 0);
    EXPECT_NE(back.find("\x1b[2;3H\x1b_Ga=p,"), std::string::npos);
}
