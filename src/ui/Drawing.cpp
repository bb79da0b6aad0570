// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/Drawing.h"

#include "text/Text.h"

#include <algorithm>

namespace trovan::draw {

int rightAligned(ScreenBuffer& buffer, std::string_view s, int right, int y, int minX,
                 Style style) {
    const int avail = right - minX;
    if (avail < 1) return right;
    const int w = std::min(avail, text::displayWidth(s));
    const int x = right - w;
    buffer.text(s, x, y, avail, style);
    return x;
}

CursorPos input(ScreenBuffer& buffer, const TextInput& in, int x, int y, int width, Style style) {
    if (width < 1) return {x, y};
    std::string_view before = in.beforeCursor();
    std::string_view shown = in.text;
    // Keep the cursor inside the field: drop whole characters from the left until the
    // text before the cursor leaves one column for the cursor itself.
    int beforeWidth = text::displayWidth(before);
    if (beforeWidth >= width) {
        text::Graphemes g(before);
        std::string_view c;
        std::size_t skipped = 0;
        while (beforeWidth >= width && g.next(c)) {
            beforeWidth -= text::charWidth(c);
            skipped += c.size();
        }
        shown = shown.substr(skipped);
    }
    // Draw what fits, without the ellipsis: a prompt is cut, not abbreviated.
    int used = 0;
    std::size_t bytes = 0;
    text::Graphemes g(shown);
    std::string_view c;
    while (g.next(c)) {
        int cw = text::charWidth(c);
        if (used + cw > width) break;
        used += cw;
        bytes += c.size();
    }
    buffer.text(shown.substr(0, bytes), x, y, width, style);
    return {x + std::min(beforeWidth, width - 1), y};
}

void fillOver(ScreenBuffer& buffer, Rect rect, Style style, const Glyph& ch) {
    if (rect.width <= 0 || rect.height <= 0) return;
    const int top = std::max(rect.y, 0), bottom = std::min(rect.y + rect.height, buffer.height());
    const int left = rect.x, right = rect.x + rect.width - 1;
    for (int y = top; y < bottom; ++y) {
        // put() repairs a wide character cut on either side of the cell it writes.
        if (left >= 0 && left < buffer.width()) buffer.put(Glyph(" ", 1), left, y, style);
        if (right >= 0 && right < buffer.width()) buffer.put(Glyph(" ", 1), right, y, style);
    }
    buffer.fill(rect, style, ch);
}

const std::shared_ptr<const PixelImage>*
coverImage(const CoverArt* art, const GraphicsChoice& graphics, int columns, int rows) {
    if (!art || !art->image || graphics.protocol == GraphicsProtocol::none) return nullptr;
    const PixelImage& image = *art->image;
    if (image.width != columns * graphics.cellWidth || image.height != rows * graphics.cellHeight)
        return nullptr;
    return &art->image;
}

std::string twoDigits(long long n) {
    if (n < 1) return "  ";
    std::string s = std::to_string(n);
    return s.size() < 2 ? "0" + s : s;
}

} // namespace trovan::draw
