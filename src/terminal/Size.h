// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace trovan {

// Terminal dimensions in columns and rows.
struct Size {
    int width = 0;
    int height = 0;

    bool operator==(const Size&) const = default;
};

} // namespace trovan
