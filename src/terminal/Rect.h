// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace trovan {

// Screen columns and rows, origin top-left, 0-based.
struct Rect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;

    bool operator==(const Rect&) const = default;
};

} // namespace trovan
