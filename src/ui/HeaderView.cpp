// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/HeaderView.h"

#include "terminal/Palette.h"
#include "text/Text.h"
#include "ui/Drawing.h"

#include <algorithm>
#include <string>

namespace trovan {

void HeaderView::draw(const AppState& state, const Layout& layout, ScreenBuffer& buffer,
                      StatusMessage::Clock::time_point now) {
    const Rect& h = layout.header;
    const int right = h.x + h.width;
    int x = h.x;
    x += buffer.text("ılıl ", x, h.y, right - x, palette::on(palette::accent, true));
    x += buffer.text("Trovan", x, h.y, right - x, palette::on(palette::white, true));

    std::string message;
    RGB colour = palette::dim;
    if (state.indexing) {
        message = state.indexing->total < 1 ? "Buscando archivos…"
                                            : "Indexando " + std::to_string(state.indexing->done) +
                                                  "/" + std::to_string(state.indexing->total);
        colour = palette::accent;
    } else if (state.analyzing) {
        message = "Analizando " + std::to_string(state.analyzing->done) + "/" +
                  std::to_string(state.analyzing->total) + "…";
        colour = palette::accent;
    } else if (state.status && state.status->isShown(now)) {
        message = state.status->text;
        colour = state.status->isError ? palette::error : palette::accent;
    } else if (!state.index.artists.empty()) {
        message = text::counted(state.index.trackCount, "canción", "canciones") + " · " +
                  text::counted(static_cast<long long>(state.index.artists.size()), "artista",
                                "artistas");
    } else {
        message = "Agrega tu música con :add ~/Música";
    }
    draw::rightAligned(buffer, message, right, h.y, x + 2, palette::on(colour));

    buffer.fill({h.x, layout.headerRule, h.width, 1}, palette::on(palette::rule), Glyph("─", 1));
}

} // namespace trovan
