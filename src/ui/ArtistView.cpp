// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/ArtistView.h"

#include "terminal/Palette.h"
#include "text/Text.h"

#include <algorithm>

namespace trovan {

void ArtistView::draw(const AppState& state, const Layout& layout, ScreenBuffer& buffer) {
    const bool focused = state.focus == Focus::artists;
    const Rect& pane = layout.artists;
    buffer.text("ARTISTAS", pane.x, pane.y, pane.width,
                palette::on(focused ? palette::accent : palette::dim, true));

    const Rect& search = layout.artistsSearch;
    if (!state.overlay.isPrompt(PromptKind::search))
        buffer.text("/ Buscar artista", search.x + 1, search.y, search.width,
                    palette::on(palette::veryDim));

    const Rect& list = layout.artistsList;
    if (state.artistRows.empty()) {
        buffer.text("Sin música todavía", list.x, list.y, list.width, palette::on(palette::dim));
        return;
    }

    std::string playingKey;
    if (state.playback.track) playingKey = text::fold(state.playback.track->groupArtist());

    const int count = static_cast<int>(state.artistRows.size());
    const int first = std::max(state.artists.offset, 0);
    const int last = std::min(count, first + std::max(0, list.height));
    const auto& artists = state.index.artists;
    for (int i = first; i < last; ++i) {
        const int y = list.y + (i - first);
        const ArtistRow& row = state.artistRows[static_cast<std::size_t>(i)];
        if (const auto* letter = row.get<ArtistRow::Letter>()) {
            buffer.text(letter->letter, list.x, y, list.width, palette::on(palette::white, true));
            continue;
        }
        std::string_view name;
        Style style = palette::on(palette::dim);
        if (const auto* list = row.get<ArtistRow::Playlist>()) {
            name = list->name;
        } else {
            const int index = row.get<ArtistRow::Artist>()->artist;
            if (index < 0 || index >= static_cast<int>(artists.size())) continue;
            const auto& artist = artists[static_cast<std::size_t>(index)];
            name = artist.name;
            if (!playingKey.empty() && artist.key == playingKey)
                style = palette::on(palette::accent);
        }
        if (i == state.artists.cursor) {
            const RGB bg = focused ? palette::selectionFocused : palette::selection;
            buffer.fill({list.x, y, list.width, 1}, Style{palette::text, bg, false, false});
            style = Style{palette::white, bg, false, false};
        }
        buffer.text(name, list.x + 1, y, list.width - 2, style);
    }
}

} // namespace trovan
