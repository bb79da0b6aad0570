// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The colours every view draws with.

#include "terminal/Style.h"

namespace trovan::palette {

inline constexpr RGB text{198, 202, 211};
inline constexpr RGB background{20, 22, 28};
inline constexpr RGB dim{135, 141, 153};
inline constexpr RGB veryDim{59, 64, 80};
inline constexpr RGB accent{122, 162, 247};
inline constexpr RGB white{255, 255, 255};
inline constexpr RGB selectionFocused{45, 55, 80};
inline constexpr RGB selection{28, 31, 39};
inline constexpr RGB rule{42, 46, 55};
inline constexpr RGB error{247, 118, 142};

// Default text on the background: the style of an empty frame.
inline constexpr Style defaultStyle{text, background, false, false};

// Foreground colour on the background, optionally bold.
constexpr Style on(RGB fg, bool bold = false) {
    return Style{fg, background, bold, false};
}

} // namespace trovan::palette
