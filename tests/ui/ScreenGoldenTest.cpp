// Whole frames compared with reviewed golden dumps (characters and styles).

#include "Fixtures.h"
#include "FrameDump.h"

#include "state/AppState.h"
#include "ui/Layout.h"
#include "ui/Screen.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace trovan;
using namespace trovan::testing;

namespace {

std::string render(const AppState& state, Size size, double elapsed = 0) {
    const Layout layout(size);
    Frame f = Screen::compose(state, layout, elapsed, kNow);
    std::optional<std::pair<int, int>> cursor;
    if (f.cursor) cursor = std::pair{f.cursor->x, f.cursor->y};
    return dumpFrame(f.buffer, cursor);
}

const Size small{60, 16}, medium{100, 40}, large{200, 60};

// A 10 × 10 pixel cover: a diagonal split, warm above, cool below.
std::vector<RGB> diagonalCover() {
    std::vector<RGB> px;
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x)
            px.push_back(x > y ? RGB{200, 80, 40} : RGB{40, 80, 200});
    return px;
}

AppState albumView(Size size) {
    const Layout layout(size);
    AppState s = libraryState(layout, "Air");
    s.focus = Focus::library;
    s.library.cursor = rowOfTitle(s, "Sexy Boy");
    s.marked = {"/m/air/tw/1-02.mp3", "/m/air/ms/03.flac"};
    s.playback.track = s.index.tracksByPath.at("/m/air/tw/2-01.mp3");
    s.playback.isPlaying = true;
    s.playback.duration = 253;
    s.playback.format = AudioFormatInfo{"MP3", 44100, std::nullopt, 2};
    const auto& air = s.index.artists[static_cast<std::size_t>(
        s.artistRows[static_cast<std::size_t>(*s.shownArtist)].get<ArtistRow::Artist>()->artist)];
    s.albumCovers[CoverArt::albumKey(air, air.albums[0])] = CoverArt{"ms", diagonalCover()};
    s.cover = CoverArt{"tw", std::nullopt};
    return s;
}

} // namespace

TEST(ScreenGolden, EmptyLibrary) {
    AppState s{Settings{}};
    EXPECT_TRUE(matchesGolden("empty-100x40", render(s, medium)));
    EXPECT_TRUE(matchesGolden("empty-60x16", render(s, small)));
    EXPECT_TRUE(matchesGolden("empty-200x60", render(s, large)));
}

TEST(ScreenGolden, TooSmallShowsOnlyTheNote) {
    AppState s = libraryState(Layout(medium));
    EXPECT_TRUE(matchesGolden("small-59x16", render(s, {59, 16})));
    EXPECT_TRUE(matchesGolden("small-60x15", render(s, {60, 15})));
}

TEST(ScreenGolden, ArtistsWithHeadingsCursorAndNowPlaying) {
    AppState s = libraryState(Layout(medium), "Björk");
    s.playback.track = s.index.tracksByPath.at("/m/abba/01.mp3");
    s.playback.duration = 231;
    EXPECT_TRUE(matchesGolden("artists-100x40", render(s, medium, 12)));
    // Focus elsewhere: the cursor row keeps a quieter highlight.
    s.focus = Focus::library;
    s.artists.cursor = artistRowOf(s, "2Pac");
    s.artists.scrollToCursor(Layout(small).artistsList.height);
    EXPECT_TRUE(matchesGolden("artists-unfocused-60x16", render(s, small, 12)));
}

TEST(ScreenGolden, AlbumViewWithDiscsFillersCoversMarksAndPlayingTrack) {
    EXPECT_TRUE(matchesGolden("albums-100x40", render(albumView(medium), medium, 126.5)));
    EXPECT_TRUE(matchesGolden("albums-200x60", render(albumView(large), large, 126.5)));
    // A narrow pane has no cover column and no filler rows.
    EXPECT_TRUE(matchesGolden("albums-60x16", render(albumView(small), small, 126.5)));
}

TEST(ScreenGolden, LyricsPaneInItsThreeStates) {
    AppState s = albumView(medium);
    s.lyricsVisible = true;
    EXPECT_TRUE(matchesGolden("lyrics-none-100x40", render(s, medium, 10)));
    s.lyrics = Lyrics{"/m/air/tw/2-01.mp3", "Run", {}};
    EXPECT_TRUE(matchesGolden("lyrics-empty-100x40", render(s, medium, 10)));
    s.lyrics->lines = {"Primera línea", "", "Segunda línea, algo más larga que la primera",
                       "Tercera", "Cuarta"};
    s.lyricsOffset = 1;
    s.focus = Focus::artists;
    EXPECT_TRUE(matchesGolden("lyrics-lines-60x16", render(s, small, 10)));
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
    s.cover = CoverArt{"tw", diagonalCover()}; // wrong size for a 10 × 5 cell cover: placeholder
    std::vector<RGB> px;
    for (int i = 0; i < 100; ++i)
        px.push_back(RGB{static_cast<std::uint8_t>(i * 2), 100, 50});
    s.cover = CoverArt{"tw", px};
    EXPECT_TRUE(matchesGolden("player-half-100x40", render(s, medium, 126.5)));

    s.muted = true;
    s.settings.eqEnabled = false;
    s.settings.repeatMode = RepeatMode::all;
    s.playback.isPlaying = false;
    EXPECT_TRUE(matchesGolden("player-full-muted-100x40", render(s, medium, 253)));

    AppState idle{Settings{}};
    idle.focus = Focus::player;
    EXPECT_TRUE(matchesGolden("player-idle-60x16", render(idle, small, 0)));
}

TEST(ScreenGolden, HeaderStatusAndScanProgress) {
    AppState s = libraryState(Layout(medium));
    s.status = StatusMessage{"No se pudo leer la carpeta", true, kNow + std::chrono::seconds(1)};
    s.indexing = IndexingProgress{64, 1000};
    EXPECT_TRUE(matchesGolden("header-indexing-100x40", render(s, medium)));
    s.indexing.reset();
    EXPECT_TRUE(matchesGolden("header-error-60x16", render(s, small)));
}

TEST(ScreenGolden, HelpOverlay) {
    AppState s = libraryState(Layout(medium));
    s.overlay = Overlay::help();
    EXPECT_TRUE(matchesGolden("help-100x40", render(s, medium)));
    EXPECT_TRUE(matchesGolden("help-200x60", render(s, large)));
    s.helpOffset = 1000; // clamped when drawn
    EXPECT_TRUE(matchesGolden("help-scrolled-60x16", render(s, small)));
}

TEST(ScreenGolden, EqualizerOverlay) {
    AppState s = libraryState(Layout(medium));
    s.overlay = Overlay::equalizer();
    s.settings.eqPreset = "Personalizado";
    s.settings.eqGains = {12, 7.5f, 5, 3, 1, 0, -1, -2.5f, -6, -12};
    s.eqBand = 3;
    EXPECT_TRUE(matchesGolden("equalizer-100x40", render(s, medium)));
    s.settings.eqEnabled = false;
    s.settings.eqGains = {1, 2};
    EXPECT_TRUE(matchesGolden("equalizer-off-60x16", render(s, small)));
}

TEST(ScreenGolden, MusicFoldersOverlay) {
    AppState s = libraryState(Layout(medium));
    s.overlay = Overlay::roots();
    EXPECT_TRUE(matchesGolden("roots-empty-100x40", render(s, medium)));
    for (int i = 0; i < 14; ++i)
        s.settings.roots.push_back("/home/ana/Música/colección-" + std::to_string(i));
    s.rootsCursor = 12;
    EXPECT_TRUE(matchesGolden("roots-scrolled-60x16", render(s, small)));
    s.settings.roots.push_back(std::string(150, 'x'));
    s.rootsCursor = 0;
    EXPECT_TRUE(matchesGolden("roots-200x60", render(s, large)));
}

TEST(ScreenGolden, TagFormOverlay) {
    AppState s = libraryState(Layout(medium));
    std::vector<PropertyMap> props = {
        {{"TITLE", {"Venus"}}, {"ALBUM", {"Talkie Walkie"}}, {"GENRE", {"Electrónica", "Pop"}}},
        {{"TITLE", {"Run"}}, {"ALBUM", {"Talkie Walkie"}}, {"GENRE", {"Electrónica", "Pop"}}},
    };
    s.form = TagForm({"/m/air/tw/1-01.mp3", "/m/air/tw/2-01.mp3"}, props);
    s.form->focused = 3;
    s.form->fields[3].input.cursor = 6;
    s.overlay = Overlay::tagForm();
    EXPECT_TRUE(matchesGolden("form-100x40", render(s, medium)));
    s.form->focused = 9;
    EXPECT_TRUE(matchesGolden("form-scrolled-60x16", render(s, small)));
}

TEST(ScreenGolden, Prompts) {
    AppState s = libraryState(Layout(medium));
    s.overlay = Overlay::prompt(PromptKind::search);
    s.input = TextInput("bj");
    EXPECT_TRUE(matchesGolden("search-100x40", render(s, medium)));
    s.input = TextInput("qqq");
    s.searchMiss = true;
    EXPECT_TRUE(matchesGolden("search-miss-60x16", render(s, small)));
    s.overlay = Overlay::prompt(PromptKind::command);
    s.input = TextInput("add \"~/Mi música\"");
    s.input.cursor = 4;
    EXPECT_TRUE(matchesGolden("command-100x40", render(s, medium)));
    s.overlay = Overlay::prompt(PromptKind::seek);
    s.input = TextInput("1:42");
    EXPECT_TRUE(matchesGolden("seek-60x16", render(s, small)));
}
