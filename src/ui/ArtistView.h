// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "state/AppState.h"
#include "terminal/ScreenBuffer.h"
#include "ui/Layout.h"

namespace trovan {

// The left pane: title, search hint and the artist list with letter headings.
class ArtistView {
public:
    static void draw(const AppState& state, const Layout& layout, ScreenBuffer& buffer);
};

} // namespace trovan
