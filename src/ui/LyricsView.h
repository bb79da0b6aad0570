// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The lyrics pane: plain lyrics as they are; timed lyrics of the playing track follow the
// song, the current line in the accent colour kept in the middle of the pane and the lines
// already sung dimmed; in timing mode, every line with its stamp and the marked line lit.

#include "state/AppState.h"
#include "terminal/ScreenBuffer.h"
#include "ui/Layout.h"

namespace trovan {

class LyricsView {
public:
    // `elapsed` is the playback position in seconds.
    static void draw(const AppState& state, const Layout& layout, double elapsed,
                     ScreenBuffer& buffer);

    // True when the lyrics shown are timed and belong to the track playing.
    static bool following(const AppState& state);
    // The line sung at `elapsed` in followed lyrics; -1 before the first or when not
    // following.
    static int currentLine(const AppState& state, double elapsed);
    // Index of the line on the pane's first list row.
    static int firstLine(const AppState& state, const Layout& layout, double elapsed);
};

} // namespace trovan
