// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Small drawing helpers shared by the views.

#include "state/AppState.h"
#include "state/TextInput.h"
#include "terminal/Renderer.h"
#include "terminal/ScreenBuffer.h"

#include <string>
#include <string_view>

namespace trovan::draw {

// Draws `s` so that it ends at column `right` (exclusive), never starting left of
// `minX`; clipped with an ellipsis when it does not fit. Returns the start column.
int rightAligned(ScreenBuffer& buffer, std::string_view s, int right, int y, int minX, Style style);

// One line of editable text in `width` columns from (x, y), scrolled so that the
// cursor stays visible. Returns where the terminal cursor goes.
CursorPos input(ScreenBuffer& buffer, const TextInput& in, int x, int y, int width, Style style);

// Fills `rect` like ScreenBuffer::fill, but first splits any wide character that
// straddles its left or right edge, so a box drawn over text never leaves half a
// character behind.
void fillOver(ScreenBuffer& buffer, Rect rect, Style style, const Glyph& ch = Glyph(" ", 1));

// The cover's picture when the terminal shows images and the picture has the pixel size
// of `columns` × `rows` cells; null otherwise (the half blocks are drawn instead).
const std::shared_ptr<const PixelImage>*
coverImage(const CoverArt* art, const GraphicsChoice& graphics, int columns, int rows);

// "%02d"-style helpers that never overflow on absurd values.
std::string twoDigits(long long n);

} // namespace trovan::draw
