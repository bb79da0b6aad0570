// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/LyricsView.h"

#include "terminal/Palette.h"
#include "text/Text.h"

#include <algorithm>
#include <cmath>

namespace trovan {

namespace {

int centred(int focus, int count, int height) {
    return std::clamp(focus - height / 2, 0, std::max(0, count - height));
}

void drawSync(const LyricsSync& sync, const Layout& layout, int first, ScreenBuffer& buffer) {
    const Rect& pane = layout.library;
    const Rect& list = layout.libraryList;
    if (sync.asking) {
        buffer.text("¿Guardar la letra sincronizada?  s guardar · n descartar · Esc seguir", pane.x,
                    pane.y, pane.width, palette::on(palette::accent, true));
    } else {
        const int used = buffer.text("SINCRONIZAR", pane.x, pane.y, pane.width,
                                     palette::on(palette::accent, true));
        buffer.text("  Espacio marca · ⌫ atrás · Esc termina", pane.x + used, pane.y,
                    pane.width - used, palette::on(palette::dim));
    }
    const int count = static_cast<int>(sync.lines.size());
    for (int row = 0; row < list.height && first + row < count; ++row) {
        const int i = first + row;
        const auto& stamp = sync.stamps[static_cast<std::size_t>(i)];
        const int y = list.y + row;
        const bool marked = i == sync.marked;
        const RGB bg = marked ? palette::selectionFocused : palette::background;
        if (marked)
            buffer.fill(Rect{list.x, y, list.width, 1}, Style{palette::text, bg, false, false});
        const int w = buffer.text(stamp ? Lrc::stamp(*stamp) : "[--:--.--]", list.x, y, list.width,
                                  Style{palette::dim, bg, false, false});
        const RGB fg = marked ? palette::white : stamp ? palette::dim : palette::text;
        buffer.text(sync.lines[static_cast<std::size_t>(i)], list.x + w + 1, y, list.width - w - 1,
                    Style{fg, bg, marked, false});
    }
}

} // namespace

bool LyricsView::following(const AppState& state) {
    return state.lyrics && state.lyrics->timed && state.playback.track &&
           state.playback.track->path == state.lyrics->path;
}

int LyricsView::currentLine(const AppState& state, double elapsed) {
    if (!following(state)) return -1;
    return state.lyrics->timed->lineAt(std::llround(elapsed * 1000.0));
}

int LyricsView::firstLine(const AppState& state, const Layout& layout, double elapsed) {
    const int height = std::max(1, layout.libraryList.height);
    if (state.lyricsSync) {
        const int count = static_cast<int>(state.lyricsSync->lines.size());
        return centred(state.lyricsSync->marked, count, height);
    }
    if (!state.lyrics) return 0;
    const int count = static_cast<int>(state.lyrics->lines.size());
    if (following(state))
        return centred(state.lyricsCursor.value_or(std::max(0, currentLine(state, elapsed))), count,
                       height);
    return std::max(state.lyricsOffset, 0);
}

void LyricsView::draw(const AppState& state, const Layout& layout, double elapsed,
                      ScreenBuffer& buffer) {
    const bool focused = state.focus == Focus::library;
    const Rect& pane = layout.library;
    const Rect& list = layout.libraryList;
    const int first = firstLine(state, layout, elapsed);
    if (state.lyricsSync) {
        drawSync(*state.lyricsSync, layout, first, buffer);
        return;
    }

    std::string heading = "LETRA";
    if (state.lyrics) heading += " · " + text::upper(state.lyrics->title);
    if (state.lyrics && state.lyrics->timed && state.lyrics->timed->offsetMs != 0) {
        const int offset = state.lyrics->timed->offsetMs;
        heading += " · " + std::string(offset > 0 ? "+" : "") + std::to_string(offset) + " ms";
    }
    buffer.text(heading, pane.x, pane.y, pane.width,
                palette::on(focused ? palette::accent : palette::dim, true));

    if (list.height < 1) return;
    if (!state.lyrics) {
        buffer.text("Reproduce o selecciona una canción", list.x, list.y, list.width,
                    palette::on(palette::dim));
        return;
    }
    const auto& lines = state.lyrics->lines;
    if (lines.empty()) {
        buffer.text("Esta canción no tiene letra. Pulsa L para agregarla.", list.x, list.y,
                    list.width, palette::on(palette::dim));
        return;
    }
    const bool follow = following(state);
    const int current = currentLine(state, elapsed);
    const int last = std::min(static_cast<int>(lines.size()), first + list.height);
    for (int i = first; i < last; ++i) {
        const int y = list.y + (i - first);
        Style style = palette::on(palette::text);
        if (follow) {
            if (i == current)
                style = palette::on(palette::accent, true);
            else if (i < current)
                style = palette::on(palette::dim);
            if (state.lyricsCursor && i == *state.lyricsCursor) {
                style.bg = palette::selectionFocused;
                buffer.fill(Rect{list.x, y, list.width, 1}, style);
            }
        }
        buffer.text(lines[static_cast<std::size_t>(i)], list.x, y, list.width, style);
    }
}

} // namespace trovan
