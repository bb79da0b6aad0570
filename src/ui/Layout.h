// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Where everything goes for one terminal size: header, the two list panes, the
// player panel with its cover, text, buttons and progress bar.

#include "state/AppState.h"
#include "terminal/Rect.h"
#include "terminal/Size.h"

#include <map>
#include <optional>

namespace trovan {

struct Layout {
    Size size;
    Rect header;
    int headerRule = 1;
    Rect artists;
    Rect artistsSearch;
    Rect artistsList;
    Rect library;
    Rect libraryList;
    int playerRule = 0;
    Rect cover;
    Rect nowPlaying;
    std::map<PlayerButton, Rect> buttons;
    Rect progress;

    Layout() : Layout(Size{0, 0}) {}
    explicit Layout(Size size);

    // The smallest terminal the full screen is drawn for.
    static constexpr int minimumWidth = 60;
    static constexpr int minimumHeight = 16;
    bool isTooSmall() const { return size.width < minimumWidth || size.height < minimumHeight; }

    // Library panes this wide or wider keep a column for album covers.
    static constexpr int coverColumnMinimumPaneWidth = 50;
    static constexpr int coverColumnWidth = 12;
    // Album covers in the library pane, in cells; album blocks are at least this tall.
    static constexpr int albumCoverColumns = 10;
    static constexpr int albumCoverRows = 5;
    bool hasCoverColumn() const { return libraryList.width >= coverColumnMinimumPaneWidth; }
    // Rows every album block needs in the library pane (0 without the cover column).
    int minimumAlbumHeight() const { return hasCoverColumn() ? albumCoverRows : 0; }

    bool operator==(const Layout&) const = default;
};

} // namespace trovan
