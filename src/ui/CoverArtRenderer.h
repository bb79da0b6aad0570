#pragma once
// Turns a track's picture into the pixel grid the views draw with half blocks.

#include "terminal/Palette.h"
#include "terminal/Style.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace trovan {

class CoverArtRenderer {
public:
    // The picture embedded in the file, else a cover image beside it (cover.jpg,
    // folder.png, …). Absent when there is none.
    static std::optional<std::vector<std::uint8_t>> imageData(const std::string& path);

    // columns × (2 · rows) pixels, row-major from the top: the picture turned upright,
    // scaled to fill and centre-cropped, its transparent parts showing `background` (the
    // colour of the place it is drawn). Absent when the bytes are not a picture or the
    // grid would be empty.
    static std::optional<std::vector<RGB>> pixels(std::span<const std::uint8_t> data, int columns,
                                                  int rows, RGB background = palette::background);
};

} // namespace trovan
