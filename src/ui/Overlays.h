// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Modal boxes drawn over the panes (help, equalizer, tag form, music folders) and the
// one-line prompts. Whatever is being typed gets the terminal cursor.

#include "state/AppState.h"
#include "terminal/Renderer.h"
#include "terminal/ScreenBuffer.h"
#include "ui/Layout.h"

#include <algorithm>
#include <optional>
#include <string_view>

namespace trovan {

class Overlays {
public:
    // Draws what `state.overlay` asks for; returns the text cursor when something is
    // being typed.
    static std::optional<CursorPos> draw(const AppState& state, const Layout& layout,
                                         ScreenBuffer& buffer, double elapsed = 0);

    // An empty framed box with a title on its top border and a footer on its bottom one.
    static void frame(int x, int y, int width, int height, std::string_view title,
                      std::string_view footer, ScreenBuffer& buffer);

    static void drawHelp(const AppState& state, ScreenBuffer& buffer);
    static void drawEqualizer(const AppState& state, ScreenBuffer& buffer);
    static void drawRoots(const AppState& state, ScreenBuffer& buffer);
    // The queue: the playing entry marked, title, artist and duration per row, the time
    // left in the title. `elapsed`: seconds into the playing entry.
    static void drawQueue(const AppState& state, double elapsed, ScreenBuffer& buffer);
    static std::optional<CursorPos> drawForm(const TagForm& form, ScreenBuffer& buffer);
    static std::optional<CursorPos> drawPrompt(const AppState& state, PromptKind kind,
                                               const Layout& layout, ScreenBuffer& buffer);

    // Box geometry for a screen of W × H, as (x, y, width, height).
    static Rect helpBox(int W, int H, int* columns = nullptr, int* linesPerColumn = nullptr);
    static Rect equalizerBox(int W, int H);
    static Rect rootsBox(int W, int H, int folders);
    static Rect formBox(int W, int H, int fields);
    static Rect queueBox(int W, int H);
    // Rows of the queue list inside its box.
    static int queueRows(int W, int H) { return std::max(0, queueBox(W, H).height - 4); }
};

} // namespace trovan
