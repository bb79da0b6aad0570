// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/ScreenBuffer.h"

#include "text/Text.h"

#include <algorithm>

namespace trovan {

ScreenBuffer::ScreenBuffer(int width, int height, Style style)
    : width_(std::max(width, 0)), height_(std::max(height, 0)),
      cells_(static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_),
             Cell{Glyph(" ", 1), style}) {}

void ScreenBuffer::write(const Glyph& ch, int x, int y, Style style) {
    Cell& cell = cells_[index(x, y)];
    // Writing over the right half of a wide character leaves its left half alone.
    if (!ch.empty() && x > 0 && cell.ch.empty()) {
        cells_[index(x - 1, y)].ch = Glyph(" ", 1);
    }
    // Writing over the left half of a wide character leaves its right half alone.
    if (x + 1 < width_ && !cell.ch.empty() && cells_[index(x + 1, y)].ch.empty()) {
        cells_[index(x + 1, y)].ch = Glyph(" ", 1);
    }
    cell.ch = ch;
    cell.style = style;
}

void ScreenBuffer::put(const Glyph& ch, int x, int y, Style style) {
    if (x < 0 || x >= width_ || y < 0 || y >= height_) return;
    write(ch, x, y, style);
}

int ScreenBuffer::text(std::string_view s, int x, int y, int maxWidth, Style style) {
    if (y < 0 || y >= height_ || maxWidth < 1) return 0;
    const int total = text::displayWidth(s);
    const int limit = total > maxWidth ? maxWidth - 1 : maxWidth;
    int used = 0;
    text::Graphemes clusters(s);
    std::string_view c;
    while (clusters.next(c)) {
        // Bytes that are not UTF-8 (a folder name from an old disk) show as U+FFFD; the
        // text itself keeps them.
        if (static_cast<unsigned char>(c[0]) >= 0x80 && !text::isValidUtf8(c)) c = "\xEF\xBF\xBD";
        const int w = text::charWidth(c);
        if (w == 0) continue;
        if (used + w > limit) break;
        const long long at = 0LL + x + used; // x may be anywhere: no int overflow
        if (at >= 0 && at < width_) {
            const int col = static_cast<int>(at);
            write(Glyph(c, w), col, y, style);
            if (w == 2 && col + 1 < width_) {
                Cell& right = cells_[index(col + 1, y)];
                right.ch = Glyph();
                right.style = style;
                if (col + 2 < width_ && cells_[index(col + 2, y)].ch.empty()) {
                    cells_[index(col + 2, y)].ch = Glyph(" ", 1);
                }
            }
        }
        used += w;
    }
    if (total <= maxWidth) return used;
    const long long at = 0LL + x + used;
    if (at >= 0 && at < width_) put(Glyph("\xE2\x80\xA6", 1), static_cast<int>(at), y, style);
    return used + 1;
}

void ScreenBuffer::fill(Rect rect, Style style, const Glyph& ch) {
    // 64-bit sums: rectangles far outside the screen must not overflow.
    const int y0 = std::max(rect.y, 0);
    const int y1 = static_cast<int>(std::clamp<long long>(0LL + rect.y + rect.height, 0, height_));
    const int x0 = std::max(rect.x, 0);
    const int x1 = static_cast<int>(std::clamp<long long>(0LL + rect.x + rect.width, 0, width_));
    if (x0 >= x1) return;
    for (int y = y0; y < y1; ++y) {
        std::fill(cells_.begin() + static_cast<std::ptrdiff_t>(index(x0, y)),
                  cells_.begin() + static_cast<std::ptrdiff_t>(index(x1, y)), Cell{ch, style});
    }
}

void ScreenBuffer::placeImage(std::shared_ptr<const PixelImage> image, Rect whole, Rect clip,
                              Style blank) {
    if (!image || whole.width <= 0 || whole.height <= 0) return;
    const int x0 = std::max({whole.x, clip.x, 0});
    const int y0 = std::max({whole.y, clip.y, 0});
    const int x1 = std::min({whole.x + whole.width, clip.x + clip.width, width_});
    const int y1 = std::min({whole.y + whole.height, clip.y + clip.height, height_});
    if (x0 >= x1 || y0 >= y1) return;
    // Put cell by cell so that wide characters cut at the edges are repaired.
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            put(Glyph(" ", 1), x, y, blank);
    images_.push_back(ImagePlacement{std::move(image), x0, y0, x1 - x0, y1 - y0, x0 - whole.x,
                                     y0 - whole.y, whole.width, whole.height});
}

void ScreenBuffer::hideImagesDrawnOver(const ScreenBuffer& before) {
    if (before.width_ != width_ || before.height_ != height_) {
        images_.clear();
        return;
    }
    std::erase_if(images_, [&](const ImagePlacement& p) {
        for (int y = p.y; y < p.y + p.rows; ++y)
            for (int x = p.x; x < p.x + p.columns; ++x)
                if (!(cells_[index(x, y)] == before.cells_[index(x, y)])) return true;
        return false;
    });
}

} // namespace trovan
