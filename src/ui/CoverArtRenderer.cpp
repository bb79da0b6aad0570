// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/CoverArtRenderer.h"

#include "media/ImageDecoder.h"

#include <algorithm>
#include <utility>

namespace trovan {

std::shared_ptr<const PixelImage> CoverArtRenderer::image(std::span<const std::uint8_t> data,
                                                          int width, int height, RGB background) {
    // Larger than any screen: a bad cell size must not ask for gigabytes.
    constexpr int kLargest = 4096;
    if (width < 1 || height < 1 || width > kLargest || height > kLargest) return nullptr;
    auto decoded = ImageDecoder::decodeToFill(data, width, height);
    if (!decoded) return nullptr;
    const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::vector<std::uint8_t> rgb = std::move(decoded->rgb);
    if (rgb.size() != 3 * n) return nullptr;
    if (decoded->alpha.size() == n) {
        const std::uint8_t bg[3] = {background.r, background.g, background.b};
        for (std::size_t i = 0; i < n; ++i) {
            const int a = decoded->alpha[i];
            for (int c = 0; c < 3; ++c) {
                std::uint8_t& v = rgb[3 * i + static_cast<std::size_t>(c)];
                v = static_cast<std::uint8_t>(std::min(255, v + ((255 - a) * bg[c] + 127) / 255));
            }
        }
    }
    return PixelImage::make(width, height, std::move(rgb));
}

std::optional<std::vector<RGB>> CoverArtRenderer::pixels(std::span<const std::uint8_t> data,
                                                         int columns, int rows, RGB background) {
    if (columns < 1 || rows < 1) return std::nullopt;
    auto image = ImageDecoder::decodeToFill(data, columns, 2 * rows);
    if (!image) return std::nullopt;
    std::vector<RGB> out(static_cast<std::size_t>(columns) * 2 * rows);
    const bool transparent = image->alpha.size() == out.size();
    // Premultiplied colour plus the background's share: c + (255 − a) · bg / 255.
    auto over = [](std::uint8_t colour, std::uint8_t alpha, std::uint8_t bg) {
        return static_cast<std::uint8_t>(std::min(255, colour + ((255 - alpha) * bg + 127) / 255));
    };
    for (std::size_t i = 0; i < out.size(); ++i) {
        const std::uint8_t* c = &image->rgb[3 * i];
        if (transparent) {
            const std::uint8_t a = image->alpha[i];
            out[i] = RGB{over(c[0], a, background.r), over(c[1], a, background.g),
                         over(c[2], a, background.b)};
        } else {
            out[i] = RGB{c[0], c[1], c[2]};
        }
    }
    return out;
}

} // namespace trovan
