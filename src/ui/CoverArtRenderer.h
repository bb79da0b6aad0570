// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Turns a track's picture into the pixel grid the views draw with half blocks.

#include "terminal/Palette.h"
#include "terminal/PixelImage.h"
#include "terminal/Style.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace trovan {

class CoverArtRenderer {
public:
    // columns × (2 · rows) pixels, row-major from the top: the picture turned upright,
    // scaled to fill and centre-cropped, its transparent parts showing `background` (the
    // colour of the place it is drawn). Absent when the bytes are not a picture or the
    // grid would be empty.
    static std::optional<std::vector<RGB>> pixels(std::span<const std::uint8_t> data, int columns,
                                                  int rows, RGB background = palette::background);

    // The picture at width × height pixels, scaled and cropped the same way, composited
    // over `background`: what an image protocol shows. Absent as for pixels().
    static std::shared_ptr<const PixelImage> image(std::span<const std::uint8_t> data, int width,
                                                   int height,
                                                   RGB background = palette::background);
};

} // namespace trovan
