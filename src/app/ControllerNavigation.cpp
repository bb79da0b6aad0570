// SPDX-License-Identifier: GPL-3.0-or-later
// Cursor movement in the two lists, focus, the artist search, marks and the tracks an
// action applies to.

#include "app/AppController.h"

#include "text/Text.h"

#include <algorithm>
#include <map>

namespace trovan {

namespace {

bool selectable(const ArtistRow& row) {
    return !row.is<ArtistRow::Letter>();
}
bool selectable(const LibraryRow& row) {
    return row.is<LibraryRow::Album>() || row.is<LibraryRow::Track>();
}

// The row the cursor lands on when aiming at `target` while moving in direction `n`:
// the first selectable row that way, else the first one the other way, else none.
template <class Row> std::optional<int> landing(const std::vector<Row>& rows, int target, int n) {
    const int count = static_cast<int>(rows.size());
    if (count == 0) return std::nullopt;
    const int t = std::clamp(target, 0, count - 1);
    const int step = n >= 0 ? 1 : -1;
    for (int i = t; i >= 0 && i < count; i += step)
        if (selectable(rows[static_cast<std::size_t>(i)])) return i;
    for (int i = t - step; i >= 0 && i < count; i -= step)
        if (selectable(rows[static_cast<std::size_t>(i)])) return i;
    return std::nullopt;
}

} // namespace

int AppController::listHeight(Focus pane) const {
    return pane == Focus::artists ? layout_.artistsList.height : layout_.libraryList.height;
}

void AppController::moveCursor(int n) {
    if (state_.focus == Focus::artists) {
        if (state_.artistRows.empty()) {
            state_.artists = {};
            return;
        }
        if (auto row = landing(state_.artistRows, state_.artists.cursor + n, n))
            state_.artists.cursor = *row;
        state_.artists.scrollToCursor(listHeight(Focus::artists));
        showCursorArtist();
    } else if (state_.focus == Focus::library) {
        if (state_.libraryRows.empty()) {
            state_.library = {};
            return;
        }
        if (auto row = landing(state_.libraryRows, state_.library.cursor + n, n))
            state_.library.cursor = *row;
        state_.library.scrollToCursor(listHeight(Focus::library));
    }
}

void AppController::snapLibraryCursor() {
    const int c = state_.library.cursor;
    if (c >= 0 && c < static_cast<int>(state_.libraryRows.size()) &&
        selectable(state_.libraryRows[static_cast<std::size_t>(c)]))
        return;
    const Focus saved = state_.focus;
    state_.focus = Focus::library;
    moveCursor(0);
    state_.focus = saved;
}

void AppController::cycleFocus(int d) {
    state_.focus = static_cast<Focus>((static_cast<int>(state_.focus) + d + 3) % 3);
    if (state_.focus == Focus::library) snapLibraryCursor();
}

void AppController::selectArtistRow(int row) {
    if (state_.artistRows.empty()) return;
    state_.artists.cursor = std::clamp(row, 0, static_cast<int>(state_.artistRows.size()) - 1);
    const Focus saved = state_.focus;
    state_.focus = Focus::artists;
    moveCursor(0);
    state_.focus = saved;
}

void AppController::selectLibraryRow(int row) {
    if (state_.libraryRows.empty()) return;
    state_.library.cursor = std::clamp(row, 0, static_cast<int>(state_.libraryRows.size()) - 1);
    const Focus saved = state_.focus;
    state_.focus = Focus::library;
    moveCursor(0);
    state_.focus = saved;
}

void AppController::showCursorArtist() {
    const int c = state_.artists.cursor;
    if (c < 0 || c >= static_cast<int>(state_.artistRows.size())) return;
    const auto* artist = state_.artistRows[static_cast<std::size_t>(c)].get<ArtistRow::Artist>();
    if (!artist || state_.shownArtist == c) return;
    state_.shownArtist = c;
    state_.library = {};
    rebuildLibraryRows();
    state_.library = {};
    snapLibraryCursor();
    state_.library.scrollToCursor(listHeight(Focus::library));
    loadAlbumCovers();
}

void AppController::jumpToArtist(const std::string& prefix) {
    if (prefix.empty()) {
        state_.searchMiss = false;
        selectArtistRow(state_.searchOrigin.value_or(state_.artists.cursor));
        return;
    }
    const std::string folded = text::fold(prefix);
    for (std::size_t i = 0; i < state_.artistRows.size(); ++i) {
        const auto* a = state_.artistRows[i].get<ArtistRow::Artist>();
        if (!a) continue;
        const std::string& key = state_.index.artists[static_cast<std::size_t>(a->artist)].key;
        if (key.compare(0, folded.size(), folded) == 0) {
            state_.searchMiss = false;
            selectArtistRow(static_cast<int>(i));
            return;
        }
    }
    state_.searchMiss = true;
}

std::vector<std::string> AppController::trackPaths(const LibraryIndex& index,
                                                   const std::vector<LibraryRow>& rows) {
    std::vector<std::string> paths;
    for (const auto& row : rows)
        if (const auto* t = row.get<LibraryRow::Track>())
            paths.emplace_back(index.table().path(t->id));
    return paths;
}

std::vector<std::string> AppController::albumPaths(int album) const {
    std::vector<std::string> paths;
    for (const auto& r : state_.libraryRows)
        if (const auto* t = r.get<LibraryRow::Track>(); t && t->album == album)
            paths.emplace_back(state_.index.table().path(t->id));
    return paths;
}

std::vector<std::string> AppController::targetPathsUnderCursor() const {
    switch (state_.focus) {
    case Focus::artists:
        return state_.shownArtist ? trackPaths(state_.index, state_.libraryRows)
                                  : std::vector<std::string>{};
    case Focus::library: {
        const int c = state_.library.cursor;
        if (c < 0 || c >= static_cast<int>(state_.libraryRows.size())) return {};
        const LibraryRow& row = state_.libraryRows[static_cast<std::size_t>(c)];
        if (const auto* t = row.get<LibraryRow::Track>()) return {state_.index.table().path(t->id)};
        if (const auto* a = row.get<LibraryRow::Album>()) return albumPaths(a->album);
        return {};
    }
    case Focus::player:
        if (state_.playback.track) return {state_.playback.track->path};
        return {};
    }
    return {};
}

std::vector<std::string> AppController::targetPaths() const {
    if (!state_.marked.empty()) {
        std::map<std::string, std::size_t> position;
        const auto shown = trackPaths(state_.index, state_.libraryRows);
        for (std::size_t i = 0; i < shown.size(); ++i)
            position.emplace(shown[i], i);
        std::vector<std::string> paths(state_.marked.begin(), state_.marked.end());
        // `marked` iterates in string order, and the sort is stable, so equal
        // positions (paths not shown) stay in string order.
        std::stable_sort(paths.begin(), paths.end(), [&](const auto& a, const auto& b) {
            auto pa = position.find(a), pb = position.find(b);
            const std::size_t ia = pa == position.end() ? shown.size() : pa->second;
            const std::size_t ib = pb == position.end() ? shown.size() : pb->second;
            return ia < ib;
        });
        return paths;
    }
    auto under = targetPathsUnderCursor();
    if (!under.empty()) return under;
    if (state_.playback.track) return {state_.playback.track->path};
    return {};
}

void AppController::toggleMark() {
    const auto paths = targetPathsUnderCursor();
    if (paths.empty()) return;
    const bool all = std::all_of(paths.begin(), paths.end(),
                                 [&](const auto& p) { return state_.marked.count(p) > 0; });
    for (const auto& p : paths) {
        if (all)
            state_.marked.erase(p);
        else
            state_.marked.insert(p);
    }
}

void AppController::clearSelection() {
    if (!state_.marked.empty())
        state_.marked.clear();
    else if (state_.lyricsVisible)
        state_.lyricsVisible = false;
}

void AppController::extendSelection(int n) {
    if (state_.focus != Focus::library) return;
    auto markUnderCursor = [&] {
        const int c = state_.library.cursor;
        if (c < 0 || c >= static_cast<int>(state_.libraryRows.size())) return;
        if (const auto* t =
                state_.libraryRows[static_cast<std::size_t>(c)].get<LibraryRow::Track>())
            state_.marked.emplace(state_.index.table().path(t->id));
    };
    markUnderCursor();
    moveCursor(n);
    markUnderCursor();
}

} // namespace trovan
