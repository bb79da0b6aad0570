// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "terminal/Style.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>

namespace trovan {

// One user-perceived character held by value in 16 bytes, with its column width.
// Clusters longer than the inline room (long emoji sequences) are interned once per
// process, so equal glyphs always have equal bytes: comparing cells is comparing memory.
// The empty glyph marks the right half of a double-width character. Ill-formed UTF-8
// is stored as U+FFFD.
class Glyph {
public:
    Glyph() = default;
    // Width from the program's text width rule.
    Glyph(std::string_view cluster);
    Glyph(const char* cluster) : Glyph(std::string_view(cluster)) {}
    Glyph(const std::string& cluster) : Glyph(std::string_view(cluster)) {}
    // Width already known by the caller.
    Glyph(std::string_view cluster, int width);

    std::string_view view() const {
        if (size_ == kInterned) return *interned();
        return {bytes_, size_};
    }
    std::string str() const { return std::string(view()); }
    bool empty() const { return size_ == 0; }
    // Columns the glyph takes: 0, 1 or 2.
    int width() const { return width_; }

    bool operator==(const Glyph& o) const { return std::memcmp(this, &o, sizeof(Glyph)) == 0; }
    bool operator==(std::string_view s) const { return view() == s; }

private:
    static constexpr std::size_t kInline = 14;
    static constexpr std::uint8_t kInterned = 0xFF;

    void assign(std::string_view cluster, int width);
    const std::string* interned() const {
        const std::string* p;
        std::memcpy(&p, bytes_, sizeof p);
        return p;
    }

    char bytes_[kInline] = {};
    std::uint8_t width_ = 0;
    std::uint8_t size_ = 0;
};

static_assert(sizeof(Glyph) == 16);

// One screen cell. `ch` empty marks the right half of a double-width character.
struct Cell {
    Glyph ch;
    Style style;

    bool operator==(const Cell&) const = default;
};

static_assert(sizeof(Cell) == 24);

} // namespace trovan

template <> struct std::hash<trovan::Glyph> {
    std::size_t operator()(const trovan::Glyph& g) const noexcept {
        return std::hash<std::string_view>{}(g.view());
    }
};

template <> struct std::hash<trovan::Cell> {
    std::size_t operator()(const trovan::Cell& c) const noexcept {
        return std::hash<trovan::Glyph>{}(c.ch) * 31 + std::hash<trovan::Style>{}(c.style);
    }
};
