// SPDX-License-Identifier: GPL-3.0-or-later
// Whole frames compared with reviewed golden dumps of their characters and styles.
// TROVAN_UPDATE_GOLDEN=1 rewrites the files instead, for review before committing.

#include "Fixtures.h"

#include "terminal/Palette.h"
#include "ui/Screen.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

using namespace trovan;
using namespace trovan::testing;

namespace {

std::string describe(const Style& s) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "fg %d,%d,%d bg %d,%d,%d%s%s", s.fg.r, s.fg.g, s.fg.b, s.bg.r,
                  s.bg.g, s.bg.b, s.bold ? " bold" : "", s.underline ? " underline" : "");
    return buf;
}

std::string trimmed(std::string s, char pad) {
    s.erase(s.find_last_not_of(pad) + 1);
    return s;
}

// Size and cursor, the characters row by row, then each row's styles as letters given
// in order of first appearance ("." is the empty frame's style) with a legend.
std::string dump(const Frame& f) {
    const ScreenBuffer& b = f.buffer;
    const std::string letters =
        ".abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789@#$%&*+=?!";
    std::vector<Style> seen{palette::defaultStyle};
    std::string chars, styles;
    for (int y = 0; y < b.height(); ++y) {
        std::string text, style;
        for (int x = 0; x < b.width(); ++x) {
            const Cell& c = b.at(x, y);
            text += c.ch.view(); // empty for the right half of a wide character
            const auto i = std::find(seen.begin(), seen.end(), c.style) - seen.begin();
            if (i == std::ssize(seen)) seen.push_back(c.style);
            style += letters.at(static_cast<std::size_t>(i));
        }
        // Appended, not "|" + std::string: GCC 12's -Wrestrict misreads that in Release.
        chars.append("|").append(trimmed(text, ' ')).append("\n");
        styles.append("|").append(trimmed(style, '.')).append("\n");
    }
    std::string out =
        "size " + std::to_string(b.width()) + "x" + std::to_string(b.height()) + ", cursor " +
        (f.cursor ? std::to_string(f.cursor->x) + "," + std::to_string(f.cursor->y) : "none") +
        "\n-- characters\n" + chars + "-- styles\n";
    for (std::size_t i = 0; i < seen.size(); ++i)
        out += letters[i] + (" = " + describe(seen[i])) + "\n";
    return out + styles;
}

// Compares the frame with tests/ui/golden/<name>-<width>x<height>.txt.
void golden(const std::string& name, const AppState& state, Size size, double elapsed = 0) {
    const std::string actual = dump(Screen::compose(state, Layout(size), elapsed, kNow));
    const std::string file = std::string(TROVAN_SOURCE_DIR) + "/tests/ui/golden/" + name + "-" +
                             std::to_string(size.width) + "x" + std::to_string(size.height) +
                             ".txt";
    if (const char* update = std::getenv("TROVAN_UPDATE_GOLDEN"); update && *update == '1') {
        std::ofstream(file, std::ios::binary) << actual;
        return;
    }
    std::ifstream in(file, std::ios::binary);
    ASSERT_TRUE(in) << "no golden file " << file;
    std::stringstream expected;
    expected << in.rdbuf();
    EXPECT_EQ(expected.str(), actual) << file;
}

const Size small{60, 16}, medium{100, 40}, large{200, 60};

int rowOfTitle(const AppState& state, const std::string& title) {
    for (std::size_t i = 0; i < state.libraryRows.size(); ++i)
        if (const auto* t = state.libraryRows[i].get<LibraryRow::Track>())
            if (state.index.table().displayTitle(t->id) == title) return static_cast<int>(i);
    return -1;
}

// Air's albums with the cursor on a track, two marked tracks, one playing, the first
// album's cover loaded and the player's cover missing.
AppState albumView(Size size) {
    AppState s = libraryState(Layout(size), "Air");
    s.focus = Focus::library;
    s.library.cursor = rowOfTitle(s, "Sexy Boy");
    s.marked = {"/m/air/tw/1-02.mp3", "/m/air/ms/03.flac"};
    s.playback.track = s.index.find("/m/air/tw/2-01.mp3");
    s.playback.isPlaying = true;
    s.playback.duration = 253;
    s.playback.format = AudioFormatInfo{"MP3", 44100, std::nullopt, 2};
    const auto& air = s.index.artists[static_cast<std::size_t>(
        s.artistRows[static_cast<std::size_t>(*s.shownArtist)].get<ArtistRow::Artist>()->artist)];
    // A 10 × 10 pixel cover split along the diagonal, warm above, cool below.
    std::vector<RGB> diagonal(100);
    for (std::size_t i = 0; i < 100; ++i)
        diagonal[i] = i % 10 > i / 10 ? RGB{200, 80, 40} : RGB{40, 80, 200};
    s.albumCovers[CoverArt::albumKey(air, air.albums[0])] = CoverArt{"ms", diagonal};
    s.cover = CoverArt{"tw", std::nullopt};
    return s;
}

} // namespace

TEST(ScreenGolden, EmptyLibraryAndTooSmallTerminals) {
    const AppState empty{Settings{}};
    for (Size size : {medium, small, large})
        golden("empty", empty, size);
    const AppState s = libraryState(Layout(medium));
    golden("small", s, {59, 16});
    golden("small", s, {60, 15});
}

TEST(ScreenGolden, ArtistsWithHeadingsCursorAndNowPlaying) {
    AppState s = libraryState(Layout(medium), "Björk");
    s.playback.track = s.index.find("/m/abba/01.mp3");
    s.playback.duration = 231;
    golden("artists", s, medium, 12);
    // Focus elsewhere: the cursor row keeps a quieter highlight.
    s.focus = Focus::library;
    s.artists.cursor = artistRowOf(s, "2Pac");
    s.artists.scrollToCursor(Layout(small).artistsList.height);
    golden("artists-unfocused", s, small, 12);
}

TEST(ScreenGolden, AlbumViewWithDiscsFillersCoversMarksAndPlayingTrack) {
    // The narrow pane has no cover column and no filler rows.
    for (Size size : {medium, large, small})
        golden("albums", albumView(size), size, 126.5);
}

TEST(ScreenGolden, LyricsPaneInItsThreeStates) {
    AppState s = albumView(medium);
    s.lyricsVisible = true;
    golden("lyrics-none", s, medium, 10);
    s.lyrics = Lyrics{"/m/air/tw/2-01.mp3", "Run", {}};
    golden("lyrics-empty", s, medium, 10);
    s.lyrics->lines = {"Primera línea", "", "Segunda línea, algo más larga que la primera",
                       "Tercera", "Cuarta"};
    s.lyricsOffset = 1;
    s.focus = Focus::artists;
    golden("lyrics-lines", s, small, 10);
}

TEST(ScreenGolden, PlayerPanel) {
    AppState s = albumView(medium);
    s.focus = Focus::player;
    s.playerButton = PlayerButton::next;
    s.settings.volume = 0.75f;
    s.settings.eqPreset = "Rock";
    s.settings.shuffle = true;
    s.settings.repeatMode = RepeatMode::one;
    s.playback.format = AudioFormatInfo{"FLAC", 44100, 16, 2};
    s.playback.gain = GainChoice{GainChoice::Source::album, -6.2};
    std::vector<RGB> px(100);
    for (std::size_t i = 0; i < 100; ++i)
        px[i] = RGB{static_cast<std::uint8_t>(i * 2), 100, 50};
    s.cover = CoverArt{"tw", px};
    golden("player-half", s, medium, 126.5);
    s.muted = true;
    s.settings.eqEnabled = false;
    s.settings.repeatMode = RepeatMode::all;
    s.playback.isPlaying = false;
    golden("player-full-muted", s, medium, 253);
    AppState idle{Settings{}};
    idle.focus = Focus::player;
    golden("player-idle", idle, small);
    // Past the end the bar stays full; the volume is truncated, not rounded; a cover of
    // the wrong size falls back to the placeholder.
    s.muted = false;
    s.settings.volume = 0.29f;
    s.cover = CoverArt{"tw", std::vector<RGB>(99)};
    golden("player-edges", s, small, 900);
}

TEST(ScreenGolden, HeaderStatusAndScanProgress) {
    AppState s = libraryState(Layout(medium));
    s.status = StatusMessage{"No se pudo leer la carpeta", true, kNow + std::chrono::seconds(1)};
    s.indexing = IndexingProgress{64, 1000};
    golden("header-indexing", s, medium);
    s.indexing.reset();
    golden("header-error", s, small);
}

TEST(ScreenGolden, Overlays) {
    AppState s = libraryState(Layout(medium));
    s.overlay = Overlay::help();
    golden("help", s, medium);
    s.helpOffset = 50; // everything fits: nothing to scroll
    golden("help", s, large);
    s.helpOffset = 1000; // clamped when drawn
    golden("help-scrolled", s, small);

    s = libraryState(Layout(medium));
    s.overlay = Overlay::equalizer();
    s.settings.eqPreset = "Personalizado";
    s.settings.eqGains = {12, 7.5f, 5, 3, 1, 0, -1, -2.5f, -6, -12};
    s.eqBand = 3;
    golden("equalizer", s, medium);
    s.settings.eqEnabled = false;
    s.settings.eqGains = {1, 2};
    golden("equalizer-off", s, small);

    s = libraryState(Layout(medium));
    s.overlay = Overlay::roots();
    golden("roots-empty", s, medium);
    for (int i = 0; i < 14; ++i)
        s.settings.roots.push_back("/home/ana/Música/colección-" + std::to_string(i));
    s.rootsCursor = 12;
    golden("roots-scrolled", s, small);

    // The queue: library tracks and a file the library lacks, the playing one marked, the
    // time left in the title; the saved lists under their heading in the artist pane.
    s = libraryState(Layout(medium));
    PlaybackQueue queue;
    queue.paths = {"/m/air/tw/1-01.mp3", "/m/air/tw/2-01.mp3", "/otro/sitio/suelta canción.ogg",
                   "/m/air/ms/03.flac"};
    queue.order = {0, 1, 2, 3};
    queue.position = 1;
    s.queue = &queue;
    s.playback.track = s.index.find("/m/air/tw/2-01.mp3");
    s.playback.duration = 253;
    s.queueView.cursor = 2;
    s.overlay = Overlay::queue();
    s.artistRows.push_back(ArtistRow::letter("Listas"));
    s.artistRows.push_back(ArtistRow::playlist("Mezcla de ñandú"));
    golden("queue", s, small, 53);
    s.overlay = Overlay::none();
    s.focus = Focus::artists;
    s.artists.cursor = static_cast<int>(s.artistRows.size()) - 1;
    s.artists.offset = std::max(0, s.artists.cursor - 5);
    golden("lists", s, small);

    s = libraryState(Layout(medium));
    const PropertyMap venus = {
        {"TITLE", {"Venus"}}, {"ALBUM", {"Talkie Walkie"}}, {"GENRE", {"Electrónica", "Pop"}}};
    PropertyMap run = venus;
    run["TITLE"] = {"Run"};
    s.form = TagForm({"/m/air/tw/1-01.mp3", "/m/air/tw/2-01.mp3"}, {venus, run});
    s.form->focused = 3;
    s.form->fields[3].input.cursor = 6;
    s.overlay = Overlay::tagForm();
    golden("form", s, medium);
    s.form->focused = 9;
    golden("form-scrolled", s, small);
}

TEST(ScreenGolden, Prompts) {
    AppState s = libraryState(Layout(medium));
    s.overlay = Overlay::prompt(PromptKind::search);
    s.input = TextInput("bj");
    golden("search", s, medium);
    s.input = TextInput("qqq");
    s.searchMiss = true;
    golden("search-miss", s, small);
    s.overlay = Overlay::prompt(PromptKind::command);
    s.input = TextInput("add \"~/Mi música\"");
    s.input.cursor = 4;
    golden("command", s, medium);
}
