// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/LibraryView.h"

#include "terminal/Palette.h"
#include "text/Text.h"
#include "ui/Drawing.h"
#include "ui/LyricsView.h"
#include "ui/PlayerView.h"

#include <algorithm>
#include <string>
#include <vector>

namespace trovan {

namespace {

constexpr RGB markColour{224, 175, 104};

struct RowPainter {
    const AppState& state;
    const LibraryIndex::Artist* artist;
    ScreenBuffer& buffer;
    int x;     // left column of the row text (X)
    int right; // first column past the row
    bool cursor;
    RGB bg;

    Style on(RGB fg, bool bold = false) const { return Style{fg, bg, bold, false}; }

    const LibraryIndex::Album* album(int index) const {
        if (!artist || index < 0 || index >= static_cast<int>(artist->albums.size()))
            return nullptr;
        return &artist->albums[static_cast<std::size_t>(index)];
    }

    void albumRow(int y, int index) const {
        const auto* a = album(index);
        if (!a) return;
        std::int64_t totalMs = 0;
        std::size_t count = 0;
        const TrackTable& table = state.index.table();
        for (const auto& disc : a->discs) {
            count += disc.tracks.size();
            for (auto id : disc.tracks)
                totalMs += std::max<std::int64_t>(table.durationMs(id), 0);
        }
        std::string info = text::counted(static_cast<long long>(count), "canción", "canciones") +
                           " · " + std::to_string(totalMs / 60000) + " min";
        const int infoStart = draw::rightAligned(buffer, info, right, y, x + 1, on(palette::dim));

        std::string heading = text::upper(a->title);
        if (a->year > 0) heading += " · " + std::to_string(a->year);
        if (a->codec && !a->codec->empty()) heading += " · " + std::string(*a->codec);
        buffer.text(heading, x + 1, y, infoStart - 3 - (x + 1),
                    on(cursor ? palette::white : palette::dim, true));
    }

    void discRow(int y, std::int64_t number) const {
        buffer.text("Disco " + std::to_string(number), x + 3, y, right - (x + 3),
                    on(palette::accent));
    }

    void trackRow(int y, const Track& track) const {
        const bool playing = state.playback.track && state.playback.track->path == track.path;
        if (playing)
            buffer.text("▶", x + 1, y, std::min(1, right - (x + 1)), on(palette::accent));
        else if (state.marked.count(track.path))
            buffer.text("●", x + 1, y, std::min(1, right - (x + 1)), on(markColour));
        buffer.text(draw::twoDigits(track.trackNumber), x + 3, y, std::min(2, right - (x + 3)),
                    on(palette::dim));

        const std::string duration =
            PlayerView::format(static_cast<double>(track.durationMs) / 1000.0);
        const int durationStart =
            draw::rightAligned(buffer, duration, right, y, x + 6, on(palette::dim));
        const RGB titleColour = cursor ? palette::white : playing ? palette::accent : palette::text;
        buffer.text(track.displayTitle(), x + 6, y, durationStart - 1 - (x + 6), on(titleColour));
    }
};

// Half-block pixels of one text row of an album cover, or a quiet placeholder.
void coverRow(ScreenBuffer& buffer, const CoverArt* art, int x, int y, int row) {
    const int w = Layout::albumCoverColumns, h = Layout::albumCoverRows;
    const bool usable =
        art && art->pixels && art->pixels->size() == static_cast<std::size_t>(w * 2 * h);
    if (usable) {
        const auto& px = *art->pixels;
        for (int cx = 0; cx < w; ++cx) {
            const RGB top = px[static_cast<std::size_t>((2 * row) * w + cx)];
            const RGB bottom = px[static_cast<std::size_t>((2 * row + 1) * w + cx)];
            buffer.put(Glyph("▀", 1), x + cx, y, Style{top, bottom, false, false});
        }
        return;
    }
    buffer.fill({x, y, w, 1}, Style{palette::text, palette::selection, false, false});
    if (row == h / 2)
        buffer.put(Glyph("♪", 1), x + w / 2, y,
                   Style{palette::dim, palette::selection, false, false});
}

} // namespace

const LibraryIndex::Artist* LibraryView::shownArtist(const AppState& state) {
    if (!state.shownArtist) return nullptr;
    const int rowIndex = *state.shownArtist;
    if (rowIndex < 0 || rowIndex >= static_cast<int>(state.artistRows.size())) return nullptr;
    const auto* row = state.artistRows[static_cast<std::size_t>(rowIndex)].get<ArtistRow::Artist>();
    if (!row || row->artist < 0 || row->artist >= static_cast<int>(state.index.artists.size()))
        return nullptr;
    return &state.index.artists[static_cast<std::size_t>(row->artist)];
}

void LibraryView::draw(const AppState& state, const Layout& layout, ScreenBuffer& buffer,
                       double elapsed) {
    if (state.lyricsVisible) {
        LyricsView::draw(state, layout, elapsed, buffer);
        return;
    }
    const bool focused = state.focus == Focus::library;
    const Rect& pane = layout.library;
    const LibraryIndex::Artist* artist = shownArtist(state);
    std::string heading = "BIBLIOTECA";
    if (artist) heading += " · " + text::upper(artist->name);
    if (!state.marked.empty())
        heading += " · " + text::counted(static_cast<long long>(state.marked.size()), "marcada",
                                         "marcadas");
    buffer.text(heading, pane.x, pane.y, pane.width,
                palette::on(focused ? palette::accent : palette::dim, true));
    if (!artist) return;

    const Rect& list = layout.libraryList;
    const bool covers = layout.hasCoverColumn();
    const int x = covers ? list.x + Layout::coverColumnWidth : list.x;
    const int right = list.x + list.width;

    const auto& rows = state.libraryRows;
    const int count = static_cast<int>(rows.size());
    const int first = std::max(state.library.offset, 0);
    const int last = std::min(count, first + std::max(0, list.height));
    if (first >= last) return;

    // Where each album's block starts, so a cover can be drawn from its top even when
    // the block is scrolled partly out of view.
    std::vector<int> blockStart;
    // Looked up once per album: building the key folds the title, which is not cheap.
    std::vector<const CoverArt*> coverOf;
    std::vector<bool> coverLooked;
    if (covers) {
        coverOf.assign(artist->albums.size(), nullptr);
        coverLooked.assign(artist->albums.size(), false);
        blockStart.assign(artist->albums.size(), -1);
        for (int i = 0; i < last; ++i)
            if (const auto* a = rows[static_cast<std::size_t>(i)].get<LibraryRow::Album>())
                if (a->album >= 0 && a->album < static_cast<int>(blockStart.size()))
                    blockStart[static_cast<std::size_t>(a->album)] = i;
    }

    for (int i = first; i < last; ++i) {
        const int y = list.y + (i - first);
        const LibraryRow& row = rows[static_cast<std::size_t>(i)];
        const bool cursor = i == state.library.cursor;
        const RGB bg = cursor ? (focused ? palette::selectionFocused : palette::selection)
                              : palette::background;
        if (cursor) buffer.fill({x, y, right - x, 1}, Style{palette::text, bg, false, false});
        RowPainter paint{state, artist, buffer, x, right, cursor, bg};

        if (const auto* a = row.get<LibraryRow::Album>())
            paint.albumRow(y, a->album);
        else if (const auto* d = row.get<LibraryRow::Disc>())
            paint.discRow(y, d->number);
        else if (const auto* t = row.get<LibraryRow::Track>();
                 t && t->id < state.index.table().size())
            paint.trackRow(y, state.index.track(t->id));

        if (!covers) continue;
        const auto albumIndex = row.albumIndex();
        if (!albumIndex || *albumIndex < 0 || *albumIndex >= static_cast<int>(blockStart.size()))
            continue;
        const int start = blockStart[static_cast<std::size_t>(*albumIndex)];
        if (start < 0 || i - start >= Layout::albumCoverRows) continue;
        const auto a = static_cast<std::size_t>(*albumIndex);
        if (!coverLooked[a]) {
            coverLooked[a] = true;
            auto it = state.albumCovers.find(CoverArt::albumKey(*artist, artist->albums[a]));
            if (it != state.albumCovers.end()) coverOf[a] = &it->second;
        }
        const auto* image = draw::coverImage(coverOf[a], state.graphics, Layout::albumCoverColumns,
                                             Layout::albumCoverRows);
        if (!image) {
            coverRow(buffer, coverOf[a], list.x + 1, y, i - start);
        } else if (i == first || i == start) {
            // The whole picture at once, cut to the list when its block is scrolled
            // partly out of view.
            const Rect whole{list.x + 1, list.y + (start - first), Layout::albumCoverColumns,
                             Layout::albumCoverRows};
            buffer.placeImage(*image, whole, Rect{list.x, list.y, list.width, last - first},
                              palette::defaultStyle);
        }
    }
}

} // namespace trovan
