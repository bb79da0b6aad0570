// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/ScreenBuffer.h"
#include "terminal/Palette.h"

#include <gtest/gtest.h>

#include <string>

using namespace trovan;

namespace {

const Style plain = palette::defaultStyle;
const Style accent = palette::on(palette::accent, true);
const std::string kan = "\xE6\xBC\xA2"; // a CJK ideograph, two columns
const std::string ell = "\xE2\x80\xA6";
const std::string note = "\xF0\x9F\x8E\xB5", acute = "e\xCC\x81"; // two columns, one

// The row as text; continuation cells show as "_".
std::string row(const ScreenBuffer& b, int y) {
    std::string s;
    for (int x = 0; x < b.width(); ++x)
        s += b.at(x, y).ch.empty() ? std::string("_") : b.at(x, y).ch.str();
    return s;
}

} // namespace

TEST(ScreenBuffer, TextTruncatesWithEllipsisByDisplayWidth) {
    ScreenBuffer b(10, 6, plain);
    EXPECT_EQ(b.text("abcdef", 0, 0, 4, accent), 4);
    EXPECT_EQ(row(b, 0), "abc" + ell + "      ");
    EXPECT_EQ(b.at(3, 0).style, accent);
    EXPECT_EQ(b.text("abcd", 0, 1, 4, plain), 4); // fits exactly: no ellipsis
    EXPECT_EQ(row(b, 1), "abcd      ");
    // Control characters take no column and are never drawn; bad bytes become U+FFFD.
    EXPECT_EQ(b.text("a\tb\x1b\xFF", 0, 2, 10, plain), 3);
    EXPECT_EQ(row(b, 2), "ab\xEF\xBF\xBD       ");
    // A wide character never straddles the limit.
    EXPECT_EQ(b.text(kan + kan + kan, 0, 3, 5, plain), 5);
    EXPECT_EQ(row(b, 3), kan + "_" + kan + "_" + ell + "     ");
    EXPECT_EQ(b.text(kan + kan + kan, 0, 4, 4, plain), 3);
    EXPECT_EQ(row(b, 4), kan + "_" + ell + "       ");
    EXPECT_EQ(b.text(note + acute + "x", 0, 5, 10, plain), 4);
    EXPECT_EQ(row(b, 5), note + "_" + acute + "x      ");
    EXPECT_EQ(b.text("abc", 0, 6, 10, plain), 0);
    EXPECT_EQ(b.text("abc", 0, 0, 0, plain), 0);
}

TEST(ScreenBuffer, OverwritingHalfAWideCharacterRepairsTheOtherHalf) {
    ScreenBuffer b(6, 1, plain);
    b.text(kan + kan, 0, 0, 6, plain);
    b.put("x", 1, 0, accent); // right half of the first
    EXPECT_EQ(row(b, 0), " x" + kan + "_  ");
    b.put("y", 2, 0, accent); // left half of the second
    EXPECT_EQ(row(b, 0), " xy   ");
    // A wide character landing on the right half of an old one.
    b.text(kan + kan, 1, 0, 6, plain);
    b.text(kan, 2, 0, 2, accent);
    EXPECT_EQ(row(b, 0), "  " + kan + "_  ");
    EXPECT_EQ(b.at(3, 0).style, accent);
    // A wide character in the last column has nowhere to put its right half.
    ScreenBuffer last(3, 1, plain);
    last.text(kan, 2, 0, 5, plain);
    EXPECT_EQ(row(last, 0), "  " + kan);
}
