// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace trovan {

// A picture at the terminal's own pixel resolution, packed 8-bit RGB rows from the top.
// Immutable once made and shared by pointer: the serial names it to the renderer, which
// sends each picture to the terminal once and then only moves it.
struct PixelImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> rgb;
    std::uint64_t serial = 0;

    static std::shared_ptr<const PixelImage> make(int width, int height,
                                                  std::vector<std::uint8_t> rgb) {
        static std::atomic<std::uint64_t> next{1};
        auto image = std::make_shared<PixelImage>();
        image->width = width;
        image->height = height;
        image->rgb = std::move(rgb);
        image->serial = next.fetch_add(1);
        return image;
    }
};

} // namespace trovan
