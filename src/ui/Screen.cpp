// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/Screen.h"

#include "terminal/Palette.h"
#include "text/Text.h"
#include "ui/ArtistView.h"
#include "ui/HeaderView.h"
#include "ui/LibraryView.h"
#include "ui/Overlays.h"
#include "ui/PlayerView.h"

#include <algorithm>
#include <string>

namespace trovan {

Frame Screen::compose(const AppState& state, const Layout& layout, double elapsed,
                      StatusMessage::Clock::time_point now) {
    Frame frame{ScreenBuffer(layout.size.width, layout.size.height, palette::defaultStyle), {}};
    frame.cursor = draw(state, layout, elapsed, frame.buffer, now);
    return frame;
}

std::optional<CursorPos> Screen::draw(const AppState& state, const Layout& layout, double elapsed,
                                      ScreenBuffer& buffer, StatusMessage::Clock::time_point now) {
    const int width = buffer.width(), height = buffer.height();
    if (width < Layout::minimumWidth || height < Layout::minimumHeight) {
        const std::string note = "Agranda la terminal (mínimo " +
                                 std::to_string(Layout::minimumWidth) + "×" +
                                 std::to_string(Layout::minimumHeight) + ")";
        buffer.text(note, std::max(0, (width - text::displayWidth(note)) / 2), height / 2, width,
                    palette::on(palette::dim));
        return std::nullopt;
    }
    HeaderView::draw(state, layout, buffer, now);
    ArtistView::draw(state, layout, buffer);
    LibraryView::draw(state, layout, buffer, elapsed);
    PlayerView::draw(elapsed, state, layout, buffer);
    if (buffer.images().empty() || state.overlay.kind == Overlay::Kind::none)
        return Overlays::draw(state, layout, buffer, elapsed);
    // Pictures lie above the text: one that a box or prompt is drawn over is hidden.
    const ScreenBuffer under = buffer;
    auto cursor = Overlays::draw(state, layout, buffer, elapsed);
    buffer.hideImagesDrawnOver(under);
    return cursor;
}

} // namespace trovan
