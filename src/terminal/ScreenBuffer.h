// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "terminal/Cell.h"
#include "terminal/PixelImage.h"
#include "terminal/Rect.h"
#include "terminal/Style.h"

#include <memory>
#include <string_view>
#include <vector>

namespace trovan {

// A picture shown over a block of cells, possibly cut by the edges of what it is drawn
// in: `columns` × `rows` cells from (x, y) show the part of the picture that starts
// `firstColumn` cells from its left and `firstRow` cells from its top.
struct ImagePlacement {
    std::shared_ptr<const PixelImage> image;
    int x = 0;
    int y = 0;
    int columns = 0;
    int rows = 0;
    int firstColumn = 0;
    int firstRow = 0;
    int imageColumns = 0; // the whole picture, in cells
    int imageRows = 0;

    Rect area() const { return Rect{x, y, columns, rows}; }
    bool operator==(const ImagePlacement&) const = default;
};

// One frame: a full grid of cells, row-major. Drawing clips silently to the grid and
// keeps double-width characters consistent (a wide character is its cell plus an empty
// continuation cell to the right).
class ScreenBuffer {
public:
    ScreenBuffer() = default;
    // Every cell a space in `style`. Negative sizes count as 0.
    ScreenBuffer(int width, int height, Style style);

    int width() const { return width_; }
    int height() const { return height_; }
    const std::vector<Cell>& cells() const { return cells_; }
    // Cell (x, y); the position must be inside the grid.
    const Cell& at(int x, int y) const { return cells_[index(x, y)]; }

    // Write one cell, repairing a wide character it cuts in half.
    void put(const Glyph& ch, int x, int y, Style style);
    // Draw `s` on row y from column x, truncated to maxWidth columns with a trailing
    // "…" when it does not fit. Returns the columns used, the ellipsis included.
    int text(std::string_view s, int x, int y, int maxWidth, Style style);
    // Set every visible cell of `rect`; no wide-character repair.
    void fill(Rect rect, Style style, const Glyph& ch = Glyph(" ", 1));

    // Shows `image` over the cells of `whole`, cut to `clip` and to the grid; those cells
    // become blanks in `blank`. Nothing when no cell is left.
    void placeImage(std::shared_ptr<const PixelImage> image, Rect whole, Rect clip, Style blank);
    const std::vector<ImagePlacement>& images() const { return images_; }
    // Takes away the pictures any of whose cells differ from `before` (something was
    // drawn over them); the cells stay as they are.
    void hideImagesDrawnOver(const ScreenBuffer& before);

    bool operator==(const ScreenBuffer&) const = default;

private:
    std::size_t index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) +
               static_cast<std::size_t>(x);
    }
    // Writes a non-empty glyph at a visible position with the wide-character repairs.
    void write(const Glyph& ch, int x, int y, Style style);

    int width_ = 0;
    int height_ = 0;
    std::vector<Cell> cells_;
    std::vector<ImagePlacement> images_;
};

} // namespace trovan
