// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "state/AppState.h"
#include "terminal/ScreenBuffer.h"
#include "ui/Layout.h"

#include <optional>
#include <string>
#include <vector>

namespace trovan {

// The player panel: rule, cover, now-playing text, transport buttons, progress bar.
class PlayerView {
public:
    static void draw(double elapsed, const AppState& state, const Layout& layout,
                     ScreenBuffer& buffer);

    // "1:15", "1:01:05"; negative and unknown times read "0:00".
    static std::string format(double seconds);

    static void drawCover(const std::optional<std::vector<RGB>>& pixels, Rect rect,
                          ScreenBuffer& buffer);
    static void drawInfo(const AppState& state, Rect rect, ScreenBuffer& buffer);
    static void drawButtons(const AppState& state, const Layout& layout, ScreenBuffer& buffer);
    static void drawProgress(double elapsed, const AppState& state, const Layout& layout,
                             ScreenBuffer& buffer);
};

} // namespace trovan
