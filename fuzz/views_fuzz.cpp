// SPDX-License-Identifier: GPL-3.0-or-later
// Random states, sizes and hostile text (controls, escapes, combining marks, wide and
// zero-width characters, right-to-left text, broken UTF-8, absurd numbers) must compose
// a frame without crashing and without touching anything outside it.

#include "ui/Screen.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

using namespace trovan;

namespace {

const StatusMessage::Clock::time_point kNow =
    StatusMessage::Clock::time_point{} + std::chrono::hours(24 * 365 * 50);

Track makeTrack(std::string path, std::string title, std::string artist, std::string album,
                int year, int number, int disc, int seconds, std::string codec,
                std::string albumArtist) {
    return {path,  0,     0,    title,  artist, albumArtist,
            album, "",    year, number, disc,   seconds * 1000LL,
            codec, 44100, 0,    2,      {}};
}

struct Chaos {
    explicit Chaos(std::uint32_t seed) : rng(seed) {}
    std::mt19937 rng;
    int between(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
    bool chance(int percent) { return between(1, 100) <= percent; }

    // Controls, escapes, combining marks, wide and zero-width characters, emoji sequences,
    // right-to-left text and override, broken UTF-8; now and then 10,000 pieces.
    std::string text() {
        // clang-format off
        static const char* const pieces[] = {
            "a", "Z", " ", "\t", "\n", "\r", "\x1b[31m", "\x07", "\x7f", "\xC2\x85", "e\xCC\x81",
            "\xCC\x81", "漢", "字", "\xF0\x9F\x8E\xB5",
            "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9", "\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D",
            "\xD8\xB3\xD9\x84\xD8\xA7\xD9\x85", "\xE2\x80\xAE", "\xFF", "\xC3", "\xE2\x82", "…",
            "│", "\xEF\xBC\xA1", "ñ", "\xE2\x80\x8B", ""};
        // clang-format on
        std::string out;
        for (int n = chance(1) ? 10000 : between(0, 40); n > 0; --n)
            out += pieces[between(0, std::size(pieces) - 1)];
        return out;
    }

    Track track(int i) {
        Track t = makeTrack("/r/" + std::to_string(i) + text(), text(), chance(20) ? "" : text(),
                            text(), between(-5, 3000), between(-3, 120), between(-2, 4),
                            between(-10, 100000), text(), chance(30) ? text() : "");
        if (chance(5)) t.durationMs = chance(50) ? INT64_MAX / 2 : INT64_MIN / 2;
        if (chance(5)) t.trackNumber = INT64_MAX;
        if (chance(5)) t.year = INT64_MIN;
        return t;
    }

    // Mostly the 10 × 10 pixels a cover holds, sometimes any other count.
    CoverArt cover() {
        return {text(),
                std::vector<RGB>(static_cast<std::size_t>(chance(70) ? 100 : between(0, 300)))};
    }

    AppState state() {
        AppState s{Settings{}};
        std::vector<Track> tracks;
        for (int i = between(0, 60); i > 0; --i)
            tracks.push_back(track(i));
        s.index = LibraryIndex(tracks);
        s.artistRows = s.index.artistRows();
        const int rows = static_cast<int>(s.artistRows.size());
        s.artists = {between(-3, rows + 3), between(-3, rows + 3)};
        if (chance(80) && rows > 0) s.shownArtist = between(-2, rows + 2);
        if (chance(70) && !s.index.artists.empty()) {
            // Mostly the rows of the shown artist, as the controller builds them.
            int artist = between(0, static_cast<int>(s.index.artists.size()) - 1);
            if (s.shownArtist && *s.shownArtist >= 0 && *s.shownArtist < rows && chance(80))
                if (const auto* a = s.artistRows[*s.shownArtist].get<ArtistRow::Artist>())
                    artist = a->artist;
            s.libraryRows = s.index.libraryRows(artist, between(-1, 8));
        }
        const int lrows = static_cast<int>(s.libraryRows.size());
        s.library = {between(-3, lrows + 3), between(-3, lrows + 3)};
        for (const auto& t : tracks)
            if (chance(30)) s.marked.insert(t.path);
        if (chance(60) && !tracks.empty())
            s.playback.track = tracks[static_cast<std::size_t>(between(0, (int)tracks.size() - 1))];
        if (chance(20)) s.playback.track = track(999);
        s.playback.isPlaying = chance(50);
        s.playback.duration = chance(10) ? -5 : chance(10) ? 1e300 : between(0, 4000) / 3.0;
        if (chance(50))
            s.playback.format = AudioFormatInfo{
                text(), between(-1, 200000) * 1.0,
                chance(50) ? std::optional<int>(between(-8, 64)) : std::nullopt, between(0, 8)};
        s.settings.volume = chance(10) ? -3.0f : chance(10) ? 1e30f : between(0, 100) / 100.0f;
        s.settings.eqPreset = text();
        s.settings.eqEnabled = chance(50);
        s.settings.eqGains.clear();
        for (int i = between(0, 14); i > 0; --i)
            s.settings.eqGains.push_back(between(-400, 400) / 10.0f);
        if (chance(5))
            s.settings.eqGains = {std::numeric_limits<float>::infinity(), std::nanf(""), 1e30f};
        for (int i = between(0, 30); i > 0; --i)
            s.settings.roots.push_back(text());
        s.settings.shuffle = chance(50);
        s.settings.repeatMode = static_cast<RepeatMode>(between(0, 2));
        s.focus = static_cast<Focus>(between(0, 2));
        s.muted = chance(30);
        s.playerButton = static_cast<PlayerButton>(between(0, 4));
        if (chance(50)) s.cover = cover();
        if (chance(10)) s.cover = CoverArt{text(), std::nullopt};
        for (const auto& artist : s.index.artists)
            for (const auto& album : artist.albums)
                if (chance(50)) s.albumCovers[CoverArt::albumKey(artist, album)] = cover();
        s.input = TextInput(text());
        s.input.cursor = between(-5, 60);
        s.searchMiss = chance(50);
        if (chance(40)) {
            std::vector<std::string> paths;
            std::vector<PropertyMap> props;
            for (int i = between(0, 4); i > 0; --i) {
                paths.push_back(text());
                props.push_back({{"TITLE", {text()}}, {"GENRE", {text(), text()}}});
            }
            s.form = TagForm(paths, props);
            s.form->focused = between(-3, 14);
            for (auto& f : s.form->fields)
                f.input.cursor = between(-3, 50);
        }
        s.eqBand = between(-3, 12);
        s.rootsCursor = between(-3, 40);
        s.helpOffset = between(-10, 100);
        if (chance(50)) s.lyrics = Lyrics{text(), text(), {}};
        for (int i = s.lyrics ? between(0, 50) : 0; i > 0; --i)
            s.lyrics->lines.push_back(text());
        s.lyricsVisible = chance(30);
        s.lyricsOffset = between(-5, 60);
        if (chance(20)) s.indexing = IndexingProgress{between(-5, 100), between(-5, 100)};
        if (chance(50))
            s.status =
                StatusMessage{text(), chance(50), kNow + std::chrono::seconds(between(-5, 5))};
        const Overlay overlays[] = {
            Overlay::none(),      Overlay::help(),
            Overlay::equalizer(), Overlay::tagForm(),
            Overlay::roots(),     Overlay::prompt(static_cast<PromptKind>(between(0, 2)))};
        s.overlay = overlays[between(0, 5)];
        return s;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    Chaos chaos(in.ConsumeIntegral<std::uint32_t>());
    const AppState state = chaos.state();
    const Size screen{in.ConsumeIntegralInRange(0, 240), in.ConsumeIntegralInRange(0, 80)};
    const Frame frame =
        Screen::compose(state, Layout(screen), in.ConsumeIntegralInRange(-100, 5000) / 7.0, kNow);
    const ScreenBuffer& b = frame.buffer;
    if (b.width() != screen.width || b.height() != screen.height) std::abort();
    if (frame.cursor && !(frame.cursor->x >= 0 && frame.cursor->x < screen.width &&
                          frame.cursor->y >= 0 && frame.cursor->y < screen.height))
        std::abort();
    // Every wide character keeps its continuation cell, and every continuation cell
    // follows a wide character.
    for (int y = 0; y < b.height(); ++y)
        for (int x = 0; x < b.width(); ++x) {
            const Cell& c = b.at(x, y);
            if (c.ch.empty() ? !(x > 0 && b.at(x - 1, y).ch.width() == 2)
                             : c.ch.width() == 2 && x + 1 < b.width() && !b.at(x + 1, y).ch.empty())
                std::abort();
        }
    return 0;
}
