#include "terminal/ScreenBuffer.h"
#include "terminal/Palette.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

using namespace trovan;

namespace {

const Style plain = palette::defaultStyle;
const Style accent = palette::on(palette::accent, true);

// The row as text; continuation cells show as "_".
std::string row(const ScreenBuffer& b, int y) {
    std::string s;
    for (int x = 0; x < b.width(); ++x) {
        const Cell& c = b.at(x, y);
        s += c.ch.empty() ? std::string("_") : c.ch.str();
    }
    return s;
}

const std::string kan = "\xE6\xBC\xA2"; // a CJK ideograph, two columns
const std::string ell = "\xE2\x80\xA6";

} // namespace

TEST(ScreenBuffer, NewBufferIsBackgroundSpaces) {
    ScreenBuffer b(3, 2, plain);
    EXPECT_EQ(row(b, 0), "   ");
    EXPECT_EQ(b.at(2, 1).style, plain);
    ScreenBuffer empty(-4, 5, plain);
    EXPECT_EQ(empty.width(), 0);
    EXPECT_TRUE(empty.cells().empty());
}

TEST(ScreenBuffer, TextTruncatesWithEllipsis) {
    ScreenBuffer b(10, 3, plain);
    EXPECT_EQ(b.text("abcdef", 0, 0, 4, accent), 4);
    EXPECT_EQ(row(b, 0), "abc" + ell + "      ");
    EXPECT_EQ(b.at(3, 0).style, accent);
    EXPECT_EQ(b.text("abcd", 0, 1, 4, plain), 4);
    EXPECT_EQ(row(b, 1), "abcd      ");
    // Control characters take no column and are never drawn.
    EXPECT_EQ(b.text("a\tb\x1b", 0, 2, 10, plain), 2);
    EXPECT_EQ(row(b, 2), "ab        ");
    EXPECT_EQ(b.text("abc", 0, 3, 10, plain), 0);
    EXPECT_EQ(b.text("abc", 0, 0, 0, plain), 0);
}

TEST(ScreenBuffer, WideCharactersNeverStraddleTheLimit) {
    ScreenBuffer b(8, 2, plain);
    const std::string three = kan + kan + kan; // 6 columns
    EXPECT_EQ(b.text(three, 0, 0, 5, plain), 5);
    EXPECT_EQ(row(b, 0), kan + "_" + kan + "_" + ell + "   ");
    EXPECT_EQ(b.text(three, 0, 1, 4, plain), 3);
    EXPECT_EQ(row(b, 1), kan + "_" + ell + "     ");
    // Emoji presentation counts two, a combining accent adds nothing.
    ScreenBuffer e(6, 1, plain);
    EXPECT_EQ(e.text("\xF0\x9F\x8E\xB5"
                     "e\xCC\x81"
                     "x",
                     0, 0, 6, plain),
              4);
    EXPECT_EQ(row(e, 0), "\xF0\x9F\x8E\xB5_e\xCC\x81x  ");
}

TEST(ScreenBuffer, OverwritingHalfAWideCharacterRepairsTheOtherHalf) {
    ScreenBuffer b(6, 1, plain);
    b.text(kan + kan, 0, 0, 6, plain);
    b.put("x", 1, 0, accent); // right half of the first
    EXPECT_EQ(row(b, 0), " x" + kan + "_  ");
    b.put("y", 2, 0, accent); // left half of the second
    EXPECT_EQ(row(b, 0), " xy   ");

    // Text whose wide character lands on the left half of an old one.
    ScreenBuffer t(6, 1, plain);
    t.text(kan + kan, 1, 0, 6, plain);
    t.text(kan, 2, 0, 2, accent);
    EXPECT_EQ(row(t, 0), " " + std::string(" ") + kan + "_ " + " ");
    EXPECT_EQ(t.at(3, 0).style, accent);
    // A wide character in the last column has nowhere to put its right half.
    ScreenBuffer last(3, 1, plain);
    last.text(kan, 2, 0, 5, plain);
    EXPECT_EQ(row(last, 0), "  " + kan);
}

TEST(ScreenBuffer, DrawingClipsToTheGrid) {
    ScreenBuffer b(4, 2, plain);
    EXPECT_EQ(b.text("abcdef", -2, 0, 10, plain), 6); // hidden columns still count
    EXPECT_EQ(row(b, 0), "cdef");
    b.put("z", 4, 0, plain);
    b.put("z", -1, 1, plain);
    b.put("z", 0, 2, plain);
    EXPECT_EQ(row(b, 1), "    ");
    // A wide character half off the left edge is not drawn at all.
    EXPECT_EQ(b.text(kan + "a", -1, 1, 10, plain), 3);
    EXPECT_EQ(row(b, 1), " a  ");

    b.fill(Rect{-2, 1, 4, 5}, accent, "#");
    EXPECT_EQ(row(b, 0), "cdef");
    EXPECT_EQ(row(b, 1), "##  ");
    EXPECT_EQ(b.at(1, 1).style, accent);
    b.fill(Rect{0, 0, -3, 2}, accent, "!");
    b.fill(Rect{2147483000, 2147483000, 2147483000, 2147483000}, accent, "!");
    b.fill(Rect{-19, -2, INT_MIN, INT_MIN}, accent, "!");
    EXPECT_EQ(row(b, 0), "cdef");
}

TEST(ScreenBuffer, LongClustersKeepTheirBytesAndCompareByContent) {
    // Man, woman, girl, boy joined by ZWJ: 25 bytes, too long to keep inline.
    const std::string family = "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D"
                               "\xF0\x9F\x91\xA7\xE2\x80\x8D\xF0\x9F\x91\xA6";
    Glyph a(family);
    Glyph b{std::string(family)};
    EXPECT_EQ(a.view(), family);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.width(), 2);
    EXPECT_FALSE(a == Glyph(family.substr(0, 18)));
    ScreenBuffer x(4, 1, plain), y(4, 1, plain);
    x.text(family, 0, 0, 4, plain);
    y.text(std::string(family), 0, 0, 4, plain);
    EXPECT_EQ(x, y);
    EXPECT_EQ(row(x, 0), family + "_  ");

    // Ill-formed bytes never reach the terminal: they are drawn as U+FFFD.
    ScreenBuffer bad(4, 1, plain);
    EXPECT_EQ(bad.text("a\xFF"
                       "b",
                       0, 0, 4, plain),
              3);
    EXPECT_EQ(row(bad, 0), "a\xEF\xBF\xBD"
                           "b ");
}
