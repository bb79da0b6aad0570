// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "state/AppState.h"
#include "terminal/ScreenBuffer.h"
#include "ui/Layout.h"

namespace trovan {

// The right pane: the shown artist's albums, discs and tracks with album covers, or
// the lyrics of the current song.
class LibraryView {
public:
    // `elapsed` (seconds into the playing track) places timed lyrics.
    static void draw(const AppState& state, const Layout& layout, ScreenBuffer& buffer,
                     double elapsed = 0);

    // The artist whose albums the pane shows, if any.
    static const LibraryIndex::Artist* shownArtist(const AppState& state);
};

} // namespace trovan
