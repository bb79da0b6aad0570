// The controller driven without a terminal: key routing by overlay, cursor rules,
// focus, marks and targets, buttons, the mouse and status messages.

#include "ControllerHarness.h"

#include "playback/PlaybackController.h"
#include "support/Fixtures.h"
#include "ui/PlayerView.h"

#include <gtest/gtest.h>

#include <random>

using namespace trovan;
using namespace trovan::testing;
using namespace std::chrono_literals;

namespace {

const Key kUp(Key::Kind::up), kDown(Key::Kind::down), kEnter(Key::Kind::enter),
    kEsc(Key::Kind::escape), kTab(Key::Kind::tab), kBackTab(Key::Kind::backTab),
    kLeft(Key::Kind::left), kRight(Key::Kind::right), kHome(Key::Kind::home), kEnd(Key::Kind::end),
    kPageDown(Key::Kind::pageDown), kPageUp(Key::Kind::pageUp);

Key ch(const char* c) {
    return Key::character(c);
}

// Artist rows: A, Abba, Air, B, Beck, Blur, C, Cher.
std::vector<Track> smallLibrary() {
    return {
        fakeTrack("Abba", "Gold", 1, "Uno"),
        fakeTrack("Air", "Moon", 1, "Dos"),
        fakeTrack("Beck", "Odelay", 1, "Tres"),
        // Blur: a two-disc album, then a one-track album.
        fakeTrack("Blur", "Parklife", 1, "Girls", 1, 1994),
        fakeTrack("Blur", "Parklife", 2, "Tracy", 1, 1994),
        fakeTrack("Blur", "Parklife", 1, "Bank", 2, 1994),
        fakeTrack("Blur", "Think", 1, "Ambulance", 1, 2003),
        fakeTrack("Cher", "Believe", 1, "Believe"),
    };
}

void load(ControllerHarness& h, const std::vector<Track>& tracks) {
    h.store().apply(tracks, {});
    h.c().reloadLibrary();
    h.settle();
}

std::string artistUnderCursor(const ControllerHarness& h) {
    const auto& row = h.state().artistRows.at(static_cast<std::size_t>(h.state().artists.cursor));
    const auto* a = row.get<ArtistRow::Artist>();
    return a ? h.state().index.artists[static_cast<std::size_t>(a->artist)].name : "<letter>";
}

std::string libraryRowName(const ControllerHarness& h) {
    const auto& row = h.state().libraryRows.at(static_cast<std::size_t>(h.state().library.cursor));
    if (const auto* t = row.get<LibraryRow::Track>()) return t->track.title;
    if (row.is<LibraryRow::Album>()) return "<album>";
    return "<other>";
}

} // namespace

TEST(ControllerKeys, TheOpenOverlayDecidesWhereKeysGo) {
    ControllerHarness h;
    load(h, smallLibrary());

    // No overlay: the binding table; unknown keys do nothing.
    const AppState before = h.state();
    h.key(ch("z"));
    EXPECT_EQ(h.state().overlay, Overlay::none());
    EXPECT_EQ(h.state().artists, before.artists);
    EXPECT_FALSE(h.state().status);

    // Help: arrows scroll (not below 0), pages by ten, anything else closes.
    h.key(ch("?"));
    ASSERT_EQ(h.state().overlay, Overlay::help());
    h.key(kUp);
    EXPECT_EQ(h.state().helpOffset, 0);
    h.key(ch("j"));
    h.key(kPageDown);
    EXPECT_EQ(h.state().helpOffset, 11);
    h.key(kPageUp);
    h.key(kPageUp);
    EXPECT_EQ(h.state().helpOffset, 0);
    h.key(ch("q")); // closes the help, does not quit
    EXPECT_EQ(h.state().overlay, Overlay::none());

    // The command line: text goes to the input, Enter runs it.
    h.key(ch(":"));
    ASSERT_EQ(h.state().overlay, Overlay::prompt(PromptKind::command));
    h.type("vol 50");
    EXPECT_EQ(h.state().overlay, Overlay::none());
    EXPECT_FLOAT_EQ(h.state().settings.volume, 0.5f);
    EXPECT_FLOAT_EQ(h.savedSettings().volume, 0.5f);

    h.type(":"); // nothing typed: nothing happens, no message
    EXPECT_FALSE(h.state().status);
    h.type(":foo bar");
    ASSERT_TRUE(h.state().status);
    EXPECT_EQ(h.state().status->text, "Comando desconocido: foo (usa :help)");
    EXPECT_TRUE(h.state().status->isError);

    // Esc drops the typed text; the next prompt starts empty.
    h.keys(":abc");
    h.key(kEsc);
    EXPECT_EQ(h.state().overlay, Overlay::none());
    h.key(ch(":"));
    EXPECT_EQ(h.state().input.text, "");
    h.key(Key::ctrl('c'));
    EXPECT_EQ(h.state().overlay, Overlay::none());

    // The time prompt.
    h.type("t1:xx");
    EXPECT_EQ(h.state().status->text, "Tiempo inválido: usa 1:42");

    // Pasting: dropped without a prompt, inserted into an open one.
    h.c().handlePaste("vol 20");
    EXPECT_EQ(h.state().input.text, "1:xx");
    EXPECT_EQ(h.state().overlay, Overlay::none());
    h.key(ch(":"));
    h.c().handlePaste("vol\n 2");
    h.c().handlePaste("0");
    EXPECT_EQ(h.state().input.text, "vol 20");
    h.key(kEnter);
    EXPECT_FLOAT_EQ(h.state().settings.volume, 0.2f);
}

TEST(ControllerKeys, MusicFolderListKeys) {
    ControllerHarness h;
    const auto a = h.home.subdir("a"), b = h.home.subdir("b");
    h.c().addRoot(a.string(), false);
    h.c().addRoot(b.string(), false);
    h.type(":paths");
    ASSERT_EQ(h.state().overlay, Overlay::roots());
    h.key(kUp);
    EXPECT_EQ(h.state().rootsCursor, 0);
    h.key(ch("j"));
    h.key(ch("j"));
    EXPECT_EQ(h.state().rootsCursor, 1);
    h.key(ch("x")); // ignored
    EXPECT_EQ(h.state().overlay, Overlay::roots());

    h.key(ch("d"));
    EXPECT_EQ(h.state().settings.roots, std::vector<std::string>{a.string()});
    EXPECT_EQ(h.savedSettings().roots, std::vector<std::string>{a.string()});
    EXPECT_EQ(h.state().status->text, "Carpeta quitada: " + b.string());
    EXPECT_EQ(h.state().rootsCursor, 0);

    h.key(ch("a"));
    EXPECT_EQ(h.state().overlay, Overlay::prompt(PromptKind::command));
    EXPECT_EQ(h.state().input.text, "add ");
    EXPECT_EQ(h.state().input.cursor, 4);
    h.keys(b.string());
    h.key(kEnter);
    EXPECT_EQ(h.state().settings.roots.size(), 2u);
    h.settle();
}

TEST(ControllerKeys, EqualizerOverlay) {
    ControllerHarness h;
    h.key(ch("="));
    ASSERT_EQ(h.state().overlay, Overlay::equalizer());

    h.key(kLeft); // wraps to the last band
    EXPECT_EQ(h.state().eqBand, 9);
    h.key(ch("l"));
    EXPECT_EQ(h.state().eqBand, 0);
    h.key(kUp);
    h.key(ch("k"));
    EXPECT_EQ(h.state().settings.eqPreset, "Personalizado");
    EXPECT_FLOAT_EQ(h.state().settings.eqGains[0], 2.0f);
    EXPECT_EQ(h.savedSettings().eqPreset, "Personalizado");
    EXPECT_FLOAT_EQ(h.c().playback().engine().equalizer().bandGain(0), 2.0f);
    for (int i = 0; i < 20; ++i)
        h.key(kUp);
    EXPECT_FLOAT_EQ(h.state().settings.eqGains[0], 12.0f);

    h.key(ch("p")); // "Personalizado" is not a preset: the list starts over
    EXPECT_EQ(h.state().settings.eqPreset, "Plano");
    h.key(ch("P"));
    EXPECT_EQ(h.state().settings.eqPreset, "Acústica");
    h.key(ch("p"));
    EXPECT_EQ(h.state().settings.eqPreset, "Plano");

    h.key(ch("b"));
    EXPECT_FALSE(h.state().settings.eqEnabled);
    EXPECT_TRUE(h.c().playback().engine().equalizer().bypass());
    EXPECT_FALSE(h.savedSettings().eqEnabled);
    h.key(ch("0")); // flat, and on again
    EXPECT_TRUE(h.state().settings.eqEnabled);

    h.key(ch("q"));
    EXPECT_EQ(h.state().overlay, Overlay::none());
    h.key(ch("="));
    EXPECT_EQ(h.state().eqBand, 0); // the band survives closing
    h.key(kEsc);
    EXPECT_EQ(h.state().overlay, Overlay::none());

    // The commands.
    h.type(":eq save mío");
    EXPECT_EQ(h.state().status->text, "Preset guardado: mío");
    EXPECT_EQ(h.savedSettings().customPresets.size(), 1u);
    h.type(":eq save JAZZ");
    EXPECT_TRUE(h.state().status->isError);
    h.type(":eq rock");
    EXPECT_EQ(h.state().settings.eqPreset, "Rock");
    h.type(":eq nada");
    EXPECT_EQ(h.state().status->text.rfind("No existe el preset nada. Disponibles: Plano, Rock", 0),
              0u);
    EXPECT_EQ(h.state().settings.eqPreset, "Rock");
    h.type(":eq off");
    EXPECT_FALSE(h.savedSettings().eqEnabled);
}

TEST(ControllerNavigation, ArtistCursorSkipsLettersAndKeepsContext) {
    ControllerHarness h({100, 16}); // six visible rows in each list
    load(h, smallLibrary());
    ASSERT_EQ(h.state().artistRows.size(), 8u);
    EXPECT_EQ(h.state().artists.cursor, 1);
    EXPECT_EQ(artistUnderCursor(h), "Abba");

    // Up from the first artist: no artist above, so it stays; the letter stays in view.
    h.key(kUp);
    EXPECT_EQ(h.state().artists.cursor, 1);
    EXPECT_EQ(h.state().artists.offset, 0);

    h.key(kDown);
    h.key(ch("j")); // skips the letter B
    EXPECT_EQ(artistUnderCursor(h), "Beck");
    EXPECT_EQ(h.state().artists.cursor, 4);
    // The library pane follows the artist under the cursor.
    ASSERT_TRUE(h.state().shownArtist);
    EXPECT_EQ(*h.state().shownArtist, 4);
    EXPECT_EQ(AppController::trackPaths(h.state().libraryRows).size(), 1u);

    h.key(kEnd);
    EXPECT_EQ(artistUnderCursor(h), "Cher");
    EXPECT_EQ(h.state().artists.offset, 7 - 6 + 1); // cursor on the last visible line
    h.key(kDown);                                   // on the last artist: nothing
    EXPECT_EQ(h.state().artists.cursor, 7);
    h.key(kUp); // up onto the letter C: skipped
    EXPECT_EQ(artistUnderCursor(h), "Blur");
    EXPECT_EQ(h.state().artists.offset, 2);
    h.key(kUp);
    h.key(kUp); // onto Air, over the letter B: one row of context stays above
    EXPECT_EQ(artistUnderCursor(h), "Air");
    EXPECT_EQ(h.state().artists.offset, 1);
    h.key(kHome);
    EXPECT_EQ(h.state().artists.cursor, 1);
    EXPECT_EQ(h.state().artists.offset, 0);
    h.key(kPageDown);
    EXPECT_EQ(artistUnderCursor(h), "Cher");
}

TEST(ControllerNavigation, LibraryCursorLandsOnAlbumsAndTracksOnly) {
    ControllerHarness h({100, 40});
    load(h, smallLibrary());
    h.c().jumpToArtist("blur");
    ASSERT_EQ(artistUnderCursor(h), "Blur");
    // Parklife (two discs): album, disc 1, Girls, Tracy, disc 2, Bank; then spacer and
    // Think with its fillers up to five rows.
    const auto& rows = h.state().libraryRows;
    ASSERT_EQ(rows.size(), 6u + 1u + 5u);
    EXPECT_TRUE(rows[1].is<LibraryRow::Disc>());
    EXPECT_TRUE(rows[11].is<LibraryRow::Filler>());

    h.key(kEnter); // artist pane: Enter moves to the library pane
    EXPECT_EQ(h.state().focus, Focus::library);
    EXPECT_EQ(libraryRowName(h), "<album>");
    h.key(kDown); // over the disc heading
    EXPECT_EQ(libraryRowName(h), "Girls");
    h.key(kDown);
    h.key(kDown);
    EXPECT_EQ(libraryRowName(h), "Bank");
    h.key(kDown); // over the spacer
    EXPECT_EQ(h.state().library.cursor, 7);
    h.key(kEnd); // the fillers below the last track cannot hold the cursor
    EXPECT_EQ(libraryRowName(h), "Ambulance");
    h.key(kPageDown);
    EXPECT_EQ(libraryRowName(h), "Ambulance");
    h.key(kHome);
    EXPECT_EQ(h.state().library.cursor, 0);

    // Searching jumps to the first artist whose key starts with the text and Esc goes back.
    h.key(ch("/"));
    EXPECT_EQ(h.state().focus, Focus::artists);
    h.keys("CH");
    EXPECT_EQ(artistUnderCursor(h), "Cher");
    h.keys("x");
    EXPECT_TRUE(h.state().searchMiss);
    EXPECT_EQ(artistUnderCursor(h), "Cher");
    h.key(Key(Key::Kind::backspace));
    EXPECT_FALSE(h.state().searchMiss);
    h.key(kEsc);
    EXPECT_EQ(artistUnderCursor(h), "Blur");
    // Enter keeps what the search found; an emptied search returns to the origin.
    h.keys("/a");
    EXPECT_EQ(artistUnderCursor(h), "Abba");
    h.key(kEnter);
    EXPECT_EQ(artistUnderCursor(h), "Abba");
    h.keys("/b");
    h.key(Key(Key::Kind::backspace));
    EXPECT_EQ(artistUnderCursor(h), "Abba");
    h.key(kEsc);
}

TEST(ControllerNavigation, FocusCycleAndPlayerButtons) {
    ControllerHarness h;
    load(h, smallLibrary());
    h.key(kTab);
    EXPECT_EQ(h.state().focus, Focus::library);
    h.key(kTab);
    EXPECT_EQ(h.state().focus, Focus::player);
    h.key(kTab);
    EXPECT_EQ(h.state().focus, Focus::artists);
    h.key(kBackTab);
    EXPECT_EQ(h.state().focus, Focus::player);

    // In the player pane ← → walk the buttons, wrapping at both ends.
    EXPECT_EQ(h.state().playerButton, PlayerButton::playPause);
    h.key(kRight);
    h.key(kRight);
    EXPECT_EQ(h.state().playerButton, PlayerButton::repeatMode);
    h.key(kRight);
    EXPECT_EQ(h.state().playerButton, PlayerButton::shuffle);
    h.key(kLeft);
    EXPECT_EQ(h.state().playerButton, PlayerButton::repeatMode);

    // Enter presses the button: repeat off → all → one → off, saved each time.
    h.key(kEnter);
    EXPECT_EQ(h.state().settings.repeatMode, RepeatMode::all);
    EXPECT_EQ(h.savedSettings().repeatMode, RepeatMode::all);
    h.key(ch("r"));
    EXPECT_EQ(h.c().playback().queue().repeatMode, RepeatMode::one);
    h.key(kEnter);
    EXPECT_EQ(h.state().settings.repeatMode, RepeatMode::off);
    h.c().press(PlayerButton::shuffle);
    EXPECT_TRUE(h.state().settings.shuffle);
    EXPECT_TRUE(h.c().playback().queue().shuffle);
    EXPECT_TRUE(h.savedSettings().shuffle);

    // ↑ ↓ change the volume here and unmute; pages do nothing.
    h.key(ch("m"));
    EXPECT_TRUE(h.state().muted);
    h.key(kUp);
    EXPECT_FALSE(h.state().muted);
    EXPECT_FLOAT_EQ(h.state().settings.volume, 0.85f);
    h.key(kDown);
    h.key(kDown);
    EXPECT_FLOAT_EQ(h.savedSettings().volume, 0.75f);
    const auto artists = h.state().artists;
    h.key(kPageDown);
    EXPECT_EQ(h.state().artists, artists);
    for (int i = 0; i < 30; ++i)
        h.key(ch("+"));
    EXPECT_FLOAT_EQ(h.state().settings.volume, 1.0f);

    // ← and → outside the player pick the panes.
    h.key(kTab);
    h.key(kRight);
    EXPECT_EQ(h.state().focus, Focus::library);
    h.key(kLeft);
    EXPECT_EQ(h.state().focus, Focus::artists);
}

TEST(ControllerSelection, MarksAndTargets) {
    ControllerHarness h;
    load(h, smallLibrary());
    h.c().jumpToArtist("blur");
    const auto all = AppController::trackPaths(h.state().libraryRows);
    ASSERT_EQ(all.size(), 4u);

    // In the artist pane the target is the shown artist's every track.
    EXPECT_EQ(h.c().targetPaths(), all);
    h.key(kEnter);
    // x on an album marks its tracks; again unmarks them all.
    h.key(ch("x"));
    EXPECT_EQ(h.state().marked.size(), 3u);
    h.key(ch("x"));
    EXPECT_TRUE(h.state().marked.empty());
    // A partly marked album: x marks the rest.
    h.key(kDown);
    h.key(ch("x"));
    h.key(kHome);
    h.key(ch("x"));
    EXPECT_EQ(h.state().marked.size(), 3u);

    // Targets are the marks in list order whatever the cursor says.
    h.key(kEnd);
    h.key(ch("x"));
    auto targets = h.c().targetPaths();
    EXPECT_EQ(targets, all);

    // Esc clears the marks only; a second Esc hides the lyrics.
    h.key(ch("l"));
    EXPECT_TRUE(h.state().lyricsVisible);
    h.key(kEsc);
    EXPECT_TRUE(h.state().marked.empty());
    EXPECT_TRUE(h.state().lyricsVisible);
    h.key(kEsc);
    EXPECT_FALSE(h.state().lyricsVisible);

    // Shift+↑ paints a range (album rows add nothing) and never unmarks.
    h.key(Key(Key::Kind::shiftUp)); // Ambulance, onto the album Think
    EXPECT_EQ(h.state().marked, (std::set<std::string>{all[3]}));
    h.key(Key(Key::Kind::shiftUp)); // over the spacer onto Bank
    h.key(Key(Key::Kind::shiftUp)); // over the disc heading onto Tracy
    EXPECT_EQ(h.state().marked, (std::set<std::string>{all[1], all[2], all[3]}));
    h.key(Key(Key::Kind::shiftDown));
    EXPECT_EQ(h.state().marked.size(), 3u);

    // Marked paths that are not shown go last; the cursor does not matter then.
    h.c().jumpToArtist("abba");
    h.key(kHome);
    h.key(ch("x"));
    targets = h.c().targetPaths();
    ASSERT_EQ(targets.size(), 4u);
    EXPECT_NE(targets[0].find("Abba"), std::string::npos);
    EXPECT_EQ(std::vector<std::string>(targets.begin() + 1, targets.end()),
              std::vector<std::string>(all.begin() + 1, all.end()));
    h.key(kEsc);
    EXPECT_EQ(h.c().targetPaths().size(), 1u); // the album under the cursor
    h.key(kTab);
    EXPECT_TRUE(h.c().targetPaths().empty()); // player pane, nothing playing
}

TEST(ControllerMouse, ClicksWheelAndDoubleClicks) {
    ControllerHarness h({100, 40});
    load(h, smallLibrary());
    const Layout& l = h.c().layout();
    auto press = [&](int x, int y) { h.c().handleMouse({MouseEvent::Kind::press, x, y}); };

    // A click on an artist row selects and shows it; on a letter it snaps forward.
    press(l.artistsList.x + 3, l.artistsList.y + 5);
    EXPECT_EQ(artistUnderCursor(h), "Blur");
    h.clock += 1s;
    press(l.artistsList.x + 3, l.artistsList.y + 3);
    EXPECT_EQ(artistUnderCursor(h), "Beck");
    // Below the last row: the last artist.
    h.clock += 1s;
    press(l.artistsList.x + 3, l.artistsList.y + 20);
    EXPECT_EQ(artistUnderCursor(h), "Cher");

    // A double click: same row, under 3 columns apart, under 0.4 s.
    h.clock += 1s;
    press(l.artistsList.x + 3, l.artistsList.y + 4);
    h.clock += 399ms;
    press(l.artistsList.x + 5, l.artistsList.y + 4);
    EXPECT_EQ(h.state().focus, Focus::library); // Enter on the artist
    // Too slow, too far, another row: single clicks.
    h.clock += 1s;
    press(l.artistsList.x + 3, l.artistsList.y + 4);
    h.clock += 400ms;
    press(l.artistsList.x + 3, l.artistsList.y + 4);
    EXPECT_EQ(h.state().focus, Focus::artists);
    h.clock += 100ms;
    press(l.artistsList.x + 6, l.artistsList.y + 4);
    EXPECT_EQ(h.state().focus, Focus::artists);
    h.clock += 100ms;
    press(l.artistsList.x + 6, l.artistsList.y + 1);
    EXPECT_EQ(h.state().focus, Focus::artists);
    // A third quick click after a double click counts as another one.
    h.clock += 1s;
    press(l.libraryList.x + 20, l.libraryList.y);
    h.clock += 100ms;
    press(l.libraryList.x + 20, l.libraryList.y);
    h.key(kTab); // away from the library pane; the next double click comes back to it
    h.clock += 100ms;
    press(l.artistsList.x + 1, l.artistsList.y + 1);
    h.clock += 100ms;
    press(l.artistsList.x + 1, l.artistsList.y + 1);
    h.clock += 100ms;
    press(l.artistsList.x + 1, l.artistsList.y + 1);
    EXPECT_EQ(h.state().focus, Focus::library);

    // The search hint opens the search.
    h.clock += 1s;
    press(l.artistsSearch.x + 2, l.artistsSearch.y);
    EXPECT_EQ(h.state().overlay, Overlay::prompt(PromptKind::search));
    // With an overlay open the mouse does nothing.
    const auto cursor = h.state().artists;
    press(l.artistsList.x + 3, l.artistsList.y + 7);
    EXPECT_EQ(h.state().artists, cursor);
    h.key(kEsc);

    // The wheel moves the cursor of the pane under it and focuses it.
    h.c().handleMouse({MouseEvent::Kind::scrollDown, l.artistsList.x, l.artistsList.y});
    EXPECT_EQ(h.state().focus, Focus::artists);
    EXPECT_EQ(artistUnderCursor(h), "Beck");
    h.c().handleMouse({MouseEvent::Kind::scrollDown, l.libraryList.x + 30, l.libraryList.y});
    EXPECT_EQ(h.state().focus, Focus::library);
    h.c().handleMouse({MouseEvent::Kind::scrollUp, 0, 0}); // outside every pane
    EXPECT_EQ(h.state().focus, Focus::library);

    // Buttons.
    const Rect shuffle = l.buttons.at(PlayerButton::shuffle);
    h.clock += 1s;
    press(shuffle.x + 1, shuffle.y);
    EXPECT_TRUE(h.state().settings.shuffle);

    // Below the minimum size nothing reacts.
    h.c().resize({59, 40});
    h.clock += 1s;
    press(h.c().layout().buttons.at(PlayerButton::shuffle).x,
          h.c().layout().buttons.at(PlayerButton::shuffle).y);
    EXPECT_TRUE(h.state().settings.shuffle);
}

TEST(ControllerMouse, ProgressBarSeeks) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    fixtures::Tone tone;
    tone.seconds = 10;
    tone.tags = {{"TITLE", {"Diez"}}, {"ARTIST", {"Tono"}}};
    const auto file = fixtures::cached("controller-ten.flac", tone);
    ControllerHarness h({100, 40});
    h.c().addRoot(file.parent_path().string(), false);
    h.c().playback().play({file.string()}, 0);
    h.settle();
    ASSERT_TRUE(h.state().playback.track);
    const double duration = h.state().playback.duration;
    ASSERT_NEAR(duration, 10.0, 0.1);

    const Rect& p = h.c().layout().progress;
    const int L = static_cast<int>(PlayerView::format(duration).size()) + 1;
    const int start = p.x + L, width = p.width - 2 * L;
    auto click = [&](int x, int y) {
        h.clock += 1s;
        h.c().handleMouse({MouseEvent::Kind::press, x, y});
        return h.c().playback().engine().currentTime();
    };
    EXPECT_NEAR(click(start + width / 2, p.y), duration * (width / 2) / width, 0.05);
    EXPECT_NEAR(click(start - 1, p.y), 0.0, 0.05); // one cell before the bar: the start
    click(start + width / 4, p.y);
    const double quarter = h.c().playback().engine().currentTime();
    EXPECT_NEAR(click(start + width + 1, p.y), quarter, 1e-9);     // past the end: nothing
    EXPECT_NEAR(click(start + width / 2, p.y - 1), quarter, 1e-9); // another row: nothing
    h.c().handleMouse({MouseEvent::Kind::drag, start + width, p.y});
    EXPECT_NEAR(h.c().playback().engine().currentTime(), duration, 0.1);

    // The keys seek too: 5 to half, "." five seconds on, "," back.
    h.key(ch("5"));
    EXPECT_NEAR(h.c().playback().engine().currentTime(), 5.0, 0.05);
    h.key(ch(","));
    EXPECT_NEAR(h.c().playback().engine().currentTime(), 0.0, 0.05);
    h.key(ch("."));
    EXPECT_NEAR(h.c().playback().engine().currentTime(), 5.0, 0.05);
    h.type(":seek 0:02");
    EXPECT_NEAR(h.c().playback().engine().currentTime(), 2.0, 0.05);
}

TEST(ControllerStatus, MessagesExpireAndTheScreenIsRedrawn) {
    ControllerHarness h;
    const auto t0 = h.clock;
    h.c().report("Hola");
    ASSERT_TRUE(h.state().status);
    EXPECT_EQ(h.state().status->expires, t0 + 4s);
    EXPECT_FALSE(h.state().status->isError);
    EXPECT_TRUE(h.state().status->isShown(t0 + 3900ms));
    EXPECT_FALSE(h.state().status->isShown(t0 + 4s));

    // The only pending redraw is the one 4.1 s later, and it asks for a frame.
    ASSERT_EQ(h.delayed.size(), 1u);
    EXPECT_EQ(h.delayed[0].at, t0 + 4100ms);
    const int renders = h.renders;
    h.clock = t0 + 4s;
    h.runDue();
    EXPECT_EQ(h.renders, renders);
    h.clock = t0 + 4100ms;
    h.runDue();
    EXPECT_EQ(h.renders, renders + 1);
}

TEST(ControllerQuit, QuitSavesTheSettings) {
    ControllerHarness h;
    h.c().toggleMute(); // not a setting
    h.key(ch("s"));
    EXPECT_TRUE(h.savedSettings().shuffle);
    try {
        h.key(ch("q"));
        FAIL() << "quit returned";
    } catch (const QuitCalled& q) {
        EXPECT_EQ(q.status, 0);
    }
    EXPECT_TRUE(h.savedSettings().shuffle);
    EXPECT_FLOAT_EQ(h.savedSettings().volume, 0.8f);
}

TEST(ControllerRobustness, RandomInputKeepsTheListsConsistent) {
    ControllerHarness h({100, 40});
    load(h, smallLibrary());
    std::mt19937 rng(1234);
    const std::vector<Key> keys = {kUp,
                                   kDown,
                                   kEnter,
                                   kEsc,
                                   kTab,
                                   kBackTab,
                                   kLeft,
                                   kRight,
                                   kHome,
                                   kEnd,
                                   kPageDown,
                                   kPageUp,
                                   Key(Key::Kind::shiftUp),
                                   Key(Key::Kind::shiftDown),
                                   Key(Key::Kind::backspace),
                                   Key(Key::Kind::delete_),
                                   Key::ctrl('a'),
                                   Key::ctrl('u'),
                                   Key::ctrl('w'),
                                   Key::function(8),
                                   ch("j"),
                                   ch("k"),
                                   ch("h"),
                                   ch("l"),
                                   ch("L"),
                                   ch("x"),
                                   ch("/"),
                                   ch(":"),
                                   ch("?"),
                                   ch("="),
                                   ch("t"),
                                   ch("a"),
                                   ch("b"),
                                   ch("d"),
                                   ch("p"),
                                   ch("P"),
                                   ch("r"),
                                   ch("s"),
                                   ch("m"),
                                   ch("0"),
                                   ch("5"),
                                   ch("+"),
                                   ch("-"),
                                   ch(" "),
                                   ch("e"),
                                   ch("E"),
                                   ch("n"),
                                   ch("é"),
                                   ch("\""),
                                   ch("q"),
                                   Key::ctrl('c')};
    const std::vector<Size> sizes = {{100, 40}, {59, 20}, {80, 24}, {60, 16},
                                     {200, 60}, {30, 5},  {81, 17}};
    auto check = [&](int step) {
        const AppState& s = h.state();
        const Layout& l = h.c().layout();
        auto viewport = [&](const ListViewport& v, int count, int height, const char* pane) {
            if (count == 0) {
                EXPECT_EQ(v.cursor, 0) << pane << " step " << step;
                return;
            }
            ASSERT_GE(v.cursor, 0) << pane << " step " << step;
            ASSERT_LT(v.cursor, count) << pane << " step " << step;
            if (height >= 1) {
                EXPECT_LE(v.offset, v.cursor) << pane << " step " << step;
                EXPECT_LT(v.cursor, v.offset + height) << pane << " step " << step;
            }
        };
        viewport(s.artists, static_cast<int>(s.artistRows.size()), l.artistsList.height, "artists");
        viewport(s.library, static_cast<int>(s.libraryRows.size()), l.libraryList.height,
                 "library");
        if (!s.artistRows.empty())
            EXPECT_TRUE(
                s.artistRows[static_cast<std::size_t>(s.artists.cursor)].is<ArtistRow::Artist>());
        if (!s.libraryRows.empty()) {
            const auto& row = s.libraryRows[static_cast<std::size_t>(s.library.cursor)];
            EXPECT_TRUE(row.is<LibraryRow::Album>() || row.is<LibraryRow::Track>())
                << "step " << step;
        }
        EXPECT_GE(s.settings.volume, 0.0f);
        EXPECT_LE(s.settings.volume, 1.0f);
    };
    for (int step = 0; step < 4000; ++step) {
        const int what = static_cast<int>(rng() % 100);
        try {
            if (what < 75) {
                h.key(keys[rng() % keys.size()]);
            } else if (what < 90) {
                const MouseEvent::Kind kinds[] = {
                    MouseEvent::Kind::press, MouseEvent::Kind::drag, MouseEvent::Kind::release,
                    MouseEvent::Kind::scrollUp, MouseEvent::Kind::scrollDown};
                h.clock += std::chrono::milliseconds(rng() % 600);
                h.c().handleMouse({kinds[rng() % 5], static_cast<int>(rng() % 220) - 10,
                                   static_cast<int>(rng() % 70) - 5});
            } else if (what < 95) {
                const std::string pastes[] = {"",        "a\nb",   "Be", "\xff\xfe",
                                              "vol 200", "~/nada", "ch"};
                h.c().handlePaste(pastes[rng() % 7]);
            } else if (what < 97) {
                h.c().resize(sizes[rng() % sizes.size()]);
            } else {
                h.settle();
            }
        } catch (const QuitCalled&) {
            // Quitting ends a real process; here the run simply goes on.
        }
        check(step);
        if (HasFatalFailure()) return;
    }
    h.settle();
}
