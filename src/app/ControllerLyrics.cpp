// SPDX-License-Identifier: GPL-3.0-or-later
// The lyrics panel: loading the lyrics of a track, following timed lyrics, jumping to a
// line, shifting the timing, and the timing mode that stamps plain lyrics line by line.

#include "app/AppController.h"

#include "app/WorkerPool.h"
#include "library/Track.h"
#include "playback/AudioEngine.h"
#include "playback/PlaybackController.h"
#include "state/CommandParser.h"
#include "tags/LyricsSource.h"
#include "tags/TagEditor.h"
#include "text/Text.h"
#include "ui/LyricsView.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace trovan {

namespace {

constexpr int kOffsetStepMs = 100;
constexpr double kStepBackSeconds = 3.0;

bool isChar(const Key& key, const char* c) {
    return key.kind == Key::Kind::char_ && key.text == c;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::string line;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\r' || c == '\n') {
            lines.push_back(line);
            line.clear();
            if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
        } else {
            line += c;
        }
    }
    if (!line.empty()) lines.push_back(line);
    // Trailing blank lines only push the text off the panel.
    while (!lines.empty() && lines.back().empty())
        lines.pop_back();
    return lines;
}

Lyrics makeLyrics(const std::string& path, const std::string& title, LoadedLyrics loaded) {
    Lyrics lyrics{path, title, {}, loaded.origin, std::move(loaded.timed)};
    if (lyrics.timed) {
        lyrics.lines.reserve(lyrics.timed->lines.size());
        for (const auto& line : lyrics.timed->lines)
            lyrics.lines.push_back(line.text);
    } else {
        lyrics.lines = splitLines(loaded.plain);
    }
    return lyrics;
}

} // namespace

void AppController::toggleLyrics() {
    state_.lyricsVisible = !state_.lyricsVisible;
    lyricsOfPlaying_ = false;
    if (state_.lyricsVisible) loadLyrics();
}

void AppController::scrollLyrics(int n) {
    const int lines = state_.lyrics ? static_cast<int>(state_.lyrics->lines.size()) : 0;
    if (LyricsView::following(state_)) {
        // Timed lyrics move a line cursor instead; Enter plays from it.
        if (lines == 0) return;
        const int from =
            state_.lyricsCursor.value_or(std::max(0, LyricsView::currentLine(state_, elapsed())));
        state_.lyricsCursor = std::clamp(from + (state_.lyricsCursor ? n : 0), 0, lines - 1);
        return;
    }
    const int last = std::max(0, lines - std::max(1, layout_.libraryList.height));
    state_.lyricsOffset = std::clamp(state_.lyricsOffset + n, 0, last);
}

void AppController::loadLyrics() {
    // The track under the library cursor, else the one playing; the playing one first
    // after a timing session, whose result is shown following the song.
    std::optional<Track> track;
    lyricsFollowPlayback_ = false;
    const int c = state_.library.cursor;
    if (!(lyricsOfPlaying_ && state_.playback.track) && c >= 0 &&
        c < static_cast<int>(state_.libraryRows.size()))
        if (const auto* t =
                state_.libraryRows[static_cast<std::size_t>(c)].get<LibraryRow::Track>())
            track = state_.index.track(t->id);
    if (!track && state_.playback.track) {
        track = state_.playback.track;
        lyricsFollowPlayback_ = true;
    }
    state_.lyricsOffset = 0;
    state_.lyricsCursor.reset();
    const int generation = ++lyricsGeneration_;
    if (!track) {
        state_.lyrics.reset();
        return;
    }
    pool_.submit([post = host_.post, alive = alive_.watch(), this, generation, path = track->path,
                  title = track->displayTitle()] {
        LoadedLyrics loaded = LyricsSource::load(path);
        std::string problem = std::move(loaded.problem);
        Lyrics lyrics = makeLyrics(path, title, std::move(loaded));
        post([alive, this, generation, lyrics = std::move(lyrics), problem = std::move(problem)] {
            if (!alive || generation != lyricsGeneration_) return;
            state_.lyrics = lyrics;
            state_.lyricsOffset = 0;
            state_.lyricsCursor.reset();
            if (!problem.empty()) report(problem, true);
            requestRender();
        });
    });
}

bool AppController::handleLyricsKey(const Key& key) {
    if (!state_.lyricsVisible || state_.focus != Focus::library || !state_.lyrics ||
        !state_.lyrics->timed)
        return false;
    Lrc& timed = *state_.lyrics->timed;
    if (isChar(key, "+") || isChar(key, "-")) {
        const int step = isChar(key, "+") ? kOffsetStepMs : -kOffsetStepMs;
        timed.offsetMs = std::clamp(timed.offsetMs + step, -3600000, 3600000);
        report("Desfase de la letra: " + std::string(timed.offsetMs > 0 ? "+" : "") +
               std::to_string(timed.offsetMs) + " ms (w guarda)");
        return true;
    }
    if (isChar(key, "w")) {
        writeLyrics(state_.lyrics->path, state_.lyrics->origin, timed.serialize(),
                    "Letra guardada");
        return true;
    }
    if (key.kind == Key::Kind::enter && state_.lyricsCursor && LyricsView::following(state_)) {
        seekTo(static_cast<double>(timed.startOf(*state_.lyricsCursor)) / 1000.0);
        state_.lyricsCursor.reset();
        return true;
    }
    if (key.kind == Key::Kind::escape && state_.lyricsCursor) {
        state_.lyricsCursor.reset();
        return true;
    }
    return false;
}

void AppController::clickLyrics(int row) {
    if (!LyricsView::following(state_) || state_.lyricsSync) return;
    const int line = LyricsView::firstLine(state_, layout_, elapsed()) + row;
    if (line < 0 || line >= static_cast<int>(state_.lyrics->lines.size())) return;
    state_.lyricsCursor.reset();
    seekTo(static_cast<double>(state_.lyrics->timed->startOf(line)) / 1000.0);
}

// --- Timing mode

void AppController::startSync() {
    if (!state_.playback.track) {
        report("Nada en reproducción: reproduce la canción que quieres sincronizar", true);
        return;
    }
    const std::string path = state_.playback.track->path;
    const std::string title = state_.playback.track->displayTitle();
    const int generation = ++lyricsGeneration_;
    pool_.submit([post = host_.post, alive = alive_.watch(), this, generation, path, title] {
        LoadedLyrics loaded = LyricsSource::load(path);
        post([alive, this, generation, path, title, loaded = std::move(loaded)]() mutable {
            if (!alive || generation != lyricsGeneration_) return;
            if (!state_.playback.track || state_.playback.track->path != path) return;
            LyricsSync sync{path, loaded.origin, {}, {}, {}, 0, false};
            if (loaded.timed) sync.tags = loaded.timed->tags;
            // SYLT lyrics are saved into the tag, as text the editor can show.
            if (sync.origin == LyricsOrigin::sylt) sync.origin = LyricsOrigin::tag;
            Lyrics lyrics = makeLyrics(path, title, std::move(loaded));
            for (const auto& line : lyrics.lines)
                if (!std::string_view(text::trim(line)).empty())
                    sync.lines.emplace_back(text::trim(line));
            if (sync.lines.empty()) {
                report("Esta canción no tiene letra que sincronizar. Pulsa L para agregarla.",
                       true);
                return;
            }
            sync.stamps.assign(sync.lines.size(), std::nullopt);
            state_.lyrics = std::move(lyrics);
            state_.lyricsCursor.reset();
            state_.lyricsVisible = true;
            state_.focus = Focus::library;
            lyricsFollowPlayback_ = true;
            lyricsOfPlaying_ = true;
            state_.lyricsSync = std::move(sync);
            requestRender();
        });
    });
}

bool AppController::handleSyncKey(const Key& key) {
    LyricsSync& sync = *state_.lyricsSync;
    const int count = static_cast<int>(sync.lines.size());
    if (sync.asking) {
        if (isChar(key, "s") || isChar(key, "S")) {
            saveSync();
        } else if (isChar(key, "n") || isChar(key, "N")) {
            state_.lyricsSync.reset();
            report("Sincronización descartada");
            loadLyrics();
        } else if (key.kind == Key::Kind::escape) {
            sync.asking = false;
        }
        return true; // nothing else happens while the question is open
    }
    if (isChar(key, " ")) {
        if (sync.marked < count) {
            sync.stamps[static_cast<std::size_t>(sync.marked)] =
                std::llround(playback_->position() * 1000.0);
            ++sync.marked;
        }
        return true;
    }
    if (key.kind == Key::Kind::backspace) {
        if (sync.marked > 0) {
            --sync.marked;
            auto& stamp = sync.stamps[static_cast<std::size_t>(sync.marked)];
            const double at = stamp ? static_cast<double>(*stamp) / 1000.0 : elapsed();
            stamp.reset();
            seekTo(std::max(0.0, at - kStepBackSeconds));
        }
        return true;
    }
    if (key.kind == Key::Kind::escape) {
        sync.asking = true;
        return true;
    }
    return false;
}

void AppController::saveSync() {
    LyricsSync sync = std::move(*state_.lyricsSync);
    state_.lyricsSync.reset();
    Lrc lrc;
    lrc.tags = sync.tags;
    std::int64_t last = 0;
    bool any = false;
    for (std::size_t i = 0; i < sync.lines.size(); ++i) {
        if (sync.stamps[i]) {
            last = *sync.stamps[i];
            any = true;
        }
        // Lines left unstamped keep the time of the line before: their text is not lost.
        lrc.lines.push_back({last, sync.lines[i]});
    }
    if (!any) {
        report("No marcaste ninguna línea: no se guardó nada", true);
        loadLyrics();
        return;
    }
    std::stable_sort(lrc.lines.begin(), lrc.lines.end(),
                     [](const LrcLine& a, const LrcLine& b) { return a.ms < b.ms; });
    // Shown at once, following the song, while the write runs.
    if (state_.lyrics && state_.lyrics->path == sync.path) {
        state_.lyrics->timed = lrc;
        state_.lyrics->lines.clear();
        for (const auto& line : lrc.lines)
            state_.lyrics->lines.push_back(line.text);
    }
    writeLyrics(sync.path, sync.origin, lrc.serialize(), "Letra sincronizada guardada");
}

void AppController::writeLyrics(const std::string& path, LyricsOrigin origin,
                                const std::string& text, const std::string& success) {
    if (origin != LyricsOrigin::sidecar) {
        TagPatch patch;
        patch.changes["LYRICS"] = {text};
        startWrite({path}, success, false,
                   [patch](TagEditor& editor, const std::vector<std::string>& p) {
                       return editor.apply(patch, p);
                   });
        return;
    }
    pool_.submit([post = host_.post, alive = alive_.watch(), this, path, text, success] {
        const bool ok = LyricsSource::writeSidecar(path, text);
        const int error = ok ? 0 : errno;
        post([alive, this, path, ok, error, success] {
            if (!alive) return;
            const std::string name = LyricsSource::sidecarPath(path).filename().string();
            if (ok)
                report(success + " en " + name);
            else
                report("No se pudo guardar " + name + ": " + std::strerror(error), true);
            if (state_.lyricsVisible) loadLyrics();
        });
    });
}

} // namespace trovan
