// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace trovan {

// A 24-bit colour.
struct RGB {
    std::uint8_t r = 0;
    std::uint8_t g = 0;
    std::uint8_t b = 0;

    bool operator==(const RGB&) const = default;
};

// How a cell is drawn. Eight bytes with no padding, so rows of cells can be
// compared as memory.
struct Style {
    RGB fg;
    RGB bg;
    bool bold = false;
    bool underline = false;

    bool operator==(const Style&) const = default;
};

static_assert(sizeof(RGB) == 3 && sizeof(Style) == 8);

} // namespace trovan

template <> struct std::hash<trovan::RGB> {
    std::size_t operator()(const trovan::RGB& c) const noexcept {
        return std::hash<std::uint32_t>{}((std::uint32_t{c.r} << 16) | (std::uint32_t{c.g} << 8) |
                                          c.b);
    }
};

template <> struct std::hash<trovan::Style> {
    std::size_t operator()(const trovan::Style& s) const noexcept {
        std::uint64_t v = (std::uint64_t{s.fg.r} << 56) | (std::uint64_t{s.fg.g} << 48) |
                          (std::uint64_t{s.fg.b} << 40) | (std::uint64_t{s.bg.r} << 32) |
                          (std::uint64_t{s.bg.g} << 24) | (std::uint64_t{s.bg.b} << 16) |
                          (std::uint64_t{s.bold} << 8) | std::uint64_t{s.underline};
        return std::hash<std::uint64_t>{}(v);
    }
};
