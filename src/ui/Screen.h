// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A whole frame, drawn from scratch from the state: header, artist pane, library
// pane, player panel and overlays, in that order, or only a "make it bigger" note on
// terminals below the minimum size.

#include "state/AppState.h"
#include "terminal/Renderer.h"
#include "terminal/ScreenBuffer.h"
#include "ui/Layout.h"

#include <optional>

namespace trovan {

struct Frame {
    ScreenBuffer buffer;
    std::optional<CursorPos> cursor; // where the text cursor shows, if anything is typed
};

class Screen {
public:
    // `elapsed` is the playback position in seconds; `now` decides whether the status
    // message has expired.
    static Frame compose(const AppState& state, const Layout& layout, double elapsed,
                         StatusMessage::Clock::time_point now = StatusMessage::Clock::now());

    // Draws into a buffer of the layout's size that holds the empty frame.
    static std::optional<CursorPos> draw(const AppState& state, const Layout& layout,
                                         double elapsed, ScreenBuffer& buffer,
                                         StatusMessage::Clock::time_point now);
};

} // namespace trovan
