// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "terminal/PixelImage.h"

#include <string>

namespace trovan {

// Turns pictures into sixel graphics: a palette of at most `colors` registers chosen
// for the picture (median cut), then six pixel rows per band, run-length coded.
class SixelEncoder {
public:
    // The DCS string for `height` pixel rows of `image` from row `top` (cut to the
    // picture); empty when nothing is left.
    static std::string encode(const PixelImage& image, int top, int height, int colors = 256);
};

} // namespace trovan
