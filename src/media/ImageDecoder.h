// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Still-image decoding for cover pictures (JPEG, PNG, GIF, BMP, WebP, TIFF) through
// FFmpeg, with the picture's EXIF orientation applied and high-quality scaling.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace trovan {

// Packed 8-bit RGB pixels, row-major from the top-left, width × height × 3 bytes. A
// picture with transparency also has one alpha byte per pixel, and its colours are
// premultiplied by it (as if composited over black): adding (255 − alpha) / 255 of a
// background colour composites it over that background.
struct RgbImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> rgb;
    std::vector<std::uint8_t> alpha; // empty: opaque
};

class ImageDecoder {
public:
    // True when the bytes decode as a picture of one of the supported formats.
    static bool isImage(std::span<const std::uint8_t> bytes);

    // Decodes the picture, turns it upright, scales it so that it covers the whole
    // width × height target and crops the excess equally on both sides of the longer
    // axis. Absent when the bytes are not a decodable picture or the target is empty.
    static std::optional<RgbImage> decodeToFill(std::span<const std::uint8_t> bytes, int width,
                                                int height);

    // The first picture embedded in an audio file (an attached-picture stream), as the
    // bytes of its encoded image. Absent when the file has none or cannot be opened.
    static std::optional<std::vector<std::uint8_t>> embeddedPicture(const std::string& path);
};

} // namespace trovan
