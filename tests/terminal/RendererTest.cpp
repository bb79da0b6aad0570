// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/Renderer.h"
#include "terminal/Palette.h"

#include <gtest/gtest.h>

#include <string>

using namespace trovan;

namespace {

const Style plain = palette::defaultStyle;
const Style red = palette::on(palette::error);
const std::string kPlainSgr = "\x1b[0;38;2;198;202;211;48;2;20;22;28m";
const std::string kBegin = "\x1b[?2026h";
const std::string kEnd = "\x1b[?25l\x1b[?2026l"; // cursor hidden, end of update
const std::string kClear = "\x1b[0m\x1b[2J";
const std::string kan = "\xE6\xBC\xA2";

// The bytes for `next` after a renderer that has just drawn `prev`.
std::string diff(const ScreenBuffer& prev, const ScreenBuffer& next) {
    Renderer r;
    r.render(prev, std::nullopt);
    return r.render(next, std::nullopt);
}

} // namespace

TEST(Renderer, FullRedrawOnFirstFrameResizeOrClearedFront) {
    Renderer r;
    ScreenBuffer b(2, 1, plain);
    b.text("ab", 0, 0, 2, plain);
    EXPECT_EQ(r.render(b, std::nullopt), kBegin + kClear + "\x1b[1;1H" + kPlainSgr + "ab" + kEnd);
    EXPECT_EQ(r.front, b);
    const std::string wider = kBegin + kClear + "\x1b[1;1H" + kPlainSgr + "   " + kEnd;
    EXPECT_EQ(r.render(ScreenBuffer(3, 1, plain), std::nullopt), wider);
    r.front.reset();
    EXPECT_EQ(r.render(ScreenBuffer(3, 1, plain), std::nullopt), wider);
    EXPECT_EQ(r.render(ScreenBuffer(0, 0, plain), std::nullopt), kBegin + kClear + kEnd);
}

TEST(Renderer, IdenticalFramesCostOnlyTheFraming) {
    Renderer r;
    ScreenBuffer b(30, 10, plain);
    b.text("hola", 3, 3, 10, palette::on(palette::accent, true));
    r.render(b, std::nullopt);
    EXPECT_EQ(r.render(b, std::nullopt), kBegin + kEnd);
    EXPECT_EQ(r.render(b, CursorPos{4, 10}), kBegin + "\x1b[11;5H\x1b[?25h\x1b[?2026l");
}

TEST(Renderer, OnlyChangedCellsAreWrittenWithFewMoves) {
    const ScreenBuffer b(10, 5, plain);
    ScreenBuffer one = b;
    one.put("X", 5, 3, plain);
    EXPECT_EQ(diff(b, one), kBegin + "\x1b[4;6H" + kPlainSgr + "X" + kEnd);
    // Two distant cells: two moves, the style stated once.
    one.put("A", 0, 0, plain);
    EXPECT_EQ(diff(b, one), kBegin + "\x1b[1;1H" + kPlainSgr + "A\x1b[4;6HX" + kEnd);
    // Neighbours: one move, the style restated only where it changes.
    ScreenBuffer adjacent = b;
    adjacent.put("C", 3, 2, plain);
    adjacent.put("D", 4, 2, red);
    EXPECT_EQ(diff(b, adjacent), kBegin + "\x1b[3;4H" + kPlainSgr + "C" +
                                     "\x1b[0;38;2;247;118;142;48;2;20;22;28mD" + kEnd);
    // After a wide character the cursor is known to be two columns on.
    ScreenBuffer wide = b;
    wide.text(kan + "x", 0, 0, 10, plain);
    EXPECT_EQ(diff(b, wide), kBegin + "\x1b[1;1H" + kPlainSgr + kan + "x" + kEnd);
}

TEST(Renderer, StyleChangeOnContinuationRedrawsTheWideCharacter) {
    ScreenBuffer b(6, 1, plain);
    b.text(kan, 2, 0, 6, plain);
    ScreenBuffer c = b;
    c.fill(Rect{3, 0, 1, 1}, red, Glyph()); // restyle only the right half
    EXPECT_EQ(diff(b, c), kBegin + "\x1b[1;3H" + kPlainSgr + kan + kEnd);
}
