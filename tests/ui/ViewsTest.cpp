// SPDX-License-Identifier: GPL-3.0-or-later
// View rules at sizes and values the golden frames do not reach.

#include "Fixtures.h"

#include "terminal/Palette.h"
#include "ui/Drawing.h"
#include "ui/PlayerView.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace trovan;
using namespace trovan::testing;

TEST(PlayerView, TimeFormat) {
    const std::pair<double, const char*> cases[] = {
        {59.9, "0:59"},    {-3, "0:00"},      {75, "1:15"},          {3599.99, "59:59"},
        {3600, "1:00:00"}, {3665, "1:01:05"}, {360000, "100:00:00"}, {std::nan(""), "0:00"}};
    for (const auto& [seconds, text] : cases)
        EXPECT_EQ(PlayerView::format(seconds), text) << seconds;
    EXPECT_EQ(PlayerView::format(1e300), PlayerView::format(1e12));
}

TEST(Drawing, InputScrollsToKeepTheCursorVisible) {
    // Text, cursor → what a 5-column field shows and where the cursor lands.
    const std::tuple<const char*, int, const char*, int> cases[] = {
        {"abcdefgh", 8, "efgh ", 4},
        {"abcdefgh", 2, "abcde", 2},
        {"漢字漢字", 4, "漢字 ", 4}, // wide characters are never split
    };
    for (const auto& [text, cursor, shown, column] : cases) {
        ScreenBuffer b(20, 1, palette::defaultStyle);
        TextInput in(text);
        in.cursor = cursor;
        EXPECT_EQ(draw::input(b, in, 2, 0, 5, palette::defaultStyle), (CursorPos{2 + column, 0}));
        std::string row;
        for (int x = 2; x < 7; ++x)
            row += b.at(x, 0).ch.view();
        EXPECT_EQ(row, shown) << text;
    }
}
