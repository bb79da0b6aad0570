// The controller driven without a terminal: key routing by overlay, cursor rules,
// focus, marks and targets, buttons, the mouse and status messages.

#include "ControllerHarness.h"

#include "playback/PlaybackController.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <tuple>

using namespace trovan;
using namespace trovan::testing;
using namespace std::chrono_literals;

namespace {

const Key kUp(Key::Kind::up), kDown(Key::Kind::down), kEnter(Key::Kind::enter),
    kEsc(Key::Kind::escape), kTab(Key::Kind::tab), kBackTab(Key::Kind::backTab),
    kLeft(Key::Kind::left), kRight(Key::Kind::right), kHome(Key::Kind::home), kEnd(Key::Kind::end),
    kPageDown(Key::Kind::pageDown), kPageUp(Key::Kind::pageUp), kShiftUp(Key::Kind::shiftUp),
    kBackspace(Key::Kind::backspace);

Key ch(const char* c) {
    return Key::character(c);
}

// Artist rows: A, Abba, Air, B, Beck, Blur, C, Cher. Blur has a two-disc album, then a
// one-track album.
void loadSmallLibrary(ControllerHarness& h) {
    load(h, {fakeTrack("Abba", "Gold", 1, "Uno"), fakeTrack("Air", "Moon", 1, "Dos"),
             fakeTrack("Beck", "Odelay", 1, "Tres"),
             fakeTrack("Blur", "Parklife", 1, "Girls", 1, 1994),
             fakeTrack("Blur", "Parklife", 2, "Tracy", 1, 1994),
             fakeTrack("Blur", "Parklife", 1, "Bank", 2, 1994),
             fakeTrack("Blur", "Think", 1, "Ambulance", 1, 2003),
             fakeTrack("Cher", "Believe", 1, "Believe")});
}

std::string libraryRowName(const ControllerHarness& h) {
    const auto& row = h.state().libraryRows.at(static_cast<std::size_t>(h.state().library.cursor));
    if (const auto* t = row.get<LibraryRow::Track>()) return t->track.title;
    return row.is<LibraryRow::Album>() ? "<album>" : "<other>";
}

} // namespace

TEST(ControllerKeys, TheOpenOverlayDecidesWhereKeysGo) {
    ControllerHarness h;
    loadSmallLibrary(h);

    // No overlay: the binding table; unknown keys do nothing.
    const AppState before = h.state();
    h.key(ch("z"));
    EXPECT_EQ(h.state().overlay, Overlay::none());
    EXPECT_EQ(h.state().artists, before.artists);
    EXPECT_FALSE(h.state().status);

    // Help: arrows scroll (not below 0), pages by ten, anything else closes.
    h.key(ch("?"));
    ASSERT_EQ(h.state().overlay, Overlay::help());
    h.press({kUp});
    EXPECT_EQ(h.state().helpOffset, 0);
    h.press({ch("j"), kPageDown});
    EXPECT_EQ(h.state().helpOffset, 11);
    h.press({kPageUp, kPageUp});
    EXPECT_EQ(h.state().helpOffset, 0);
    h.key(ch("q")); // closes the help, does not quit
    EXPECT_EQ(h.state().overlay, Overlay::none());

    // The command line: an empty one does nothing; unknown commands are errors.
    h.type(":");
    EXPECT_FALSE(h.state().status);
    h.type(":foo bar");
    ASSERT_TRUE(h.state().status);
    EXPECT_EQ(h.state().status->text, "Comando desconocido: foo (usa :help)");
    EXPECT_TRUE(h.state().status->isError);

    // Esc and Ctrl-C drop the typed text; the next prompt starts empty.
    h.keys(":abc");
    h.key(kEsc);
    EXPECT_EQ(h.state().overlay, Overlay::none());
    h.key(ch(":"));
    EXPECT_EQ(h.state().input.text, "");
    h.key(Key::ctrl('c'));
    EXPECT_EQ(h.state().overlay, Overlay::none());

    h.type("t1:xx"); // the time prompt
    EXPECT_EQ(h.state().status->text, "Tiempo inválido: usa 1:42");

    // Pasting: dropped without a prompt, inserted into an open one without line breaks.
    h.c().handlePaste("vol 20");
    EXPECT_EQ(h.state().overlay, Overlay::none());
    h.key(ch(":"));
    h.c().handlePaste("vol\n 2");
    h.c().handlePaste("0");
    EXPECT_EQ(h.state().input.text, "vol 20");
    h.key(kEnter);
    EXPECT_FLOAT_EQ(h.state().settings.volume, 0.2f);
    EXPECT_FLOAT_EQ(h.savedSettings().volume, 0.2f);
}

TEST(ControllerKeys, MusicFolderListKeys) {
    ControllerHarness h;
    const auto a = h.home.subdir("a"), b = h.home.subdir("b");
    h.c().addRoot(a.string(), false);
    h.c().addRoot(b.string(), false);
    h.type(":paths");
    ASSERT_EQ(h.state().overlay, Overlay::roots());
    h.press({kUp});
    EXPECT_EQ(h.state().rootsCursor, 0);
    h.keys("jjx"); // x is ignored
    EXPECT_EQ(h.state().rootsCursor, 1);
    EXPECT_EQ(h.state().overlay, Overlay::roots());

    h.key(ch("d"));
    EXPECT_EQ(h.savedSettings().roots, std::vector<std::string>{a.string()});
    EXPECT_EQ(h.state().status->text, "Carpeta quitada: " + b.string());
    EXPECT_EQ(h.state().rootsCursor, 0);

    h.key(ch("a")); // a command line with "add " typed
    EXPECT_EQ(h.state().overlay, Overlay::prompt(PromptKind::command));
    EXPECT_EQ(h.state().input.text, "add ");
    EXPECT_EQ(h.state().input.cursor, 4);
    h.type(b.string());
    EXPECT_EQ(h.state().settings.roots.size(), 2u);
    h.settle();
}

TEST(ControllerKeys, EqualizerOverlayAndCommands) {
    ControllerHarness h;
    h.key(ch("="));
    ASSERT_EQ(h.state().overlay, Overlay::equalizer());
    h.press({kLeft}); // wraps to the last band
    EXPECT_EQ(h.state().eqBand, 9);
    h.press({ch("l"), kUp, ch("k")});
    EXPECT_EQ(h.state().eqBand, 0);
    EXPECT_EQ(h.savedSettings().eqPreset, "Personalizado");
    EXPECT_FLOAT_EQ(h.state().settings.eqGains[0], 2.0f);
    EXPECT_FLOAT_EQ(h.c().playback().engine().equalizer().bandGain(0), 2.0f);
    for (int i = 0; i < 20; ++i)
        h.key(kUp);
    EXPECT_FLOAT_EQ(h.state().settings.eqGains[0], 12.0f);

    h.key(ch("p")); // "Personalizado" is not in the list: it starts over
    EXPECT_EQ(h.state().settings.eqPreset, "Plano");
    h.key(ch("P"));
    EXPECT_EQ(h.state().settings.eqPreset, "Acústica");
    h.key(ch("b"));
    EXPECT_TRUE(h.c().playback().engine().equalizer().bypass());
    EXPECT_FALSE(h.savedSettings().eqEnabled);
    h.key(ch("0")); // flat, and on again
    EXPECT_TRUE(h.state().settings.eqEnabled);
    EXPECT_EQ(h.state().settings.eqPreset, "Plano");

    h.press({ch("q"), ch("=")});
    EXPECT_EQ(h.state().eqBand, 0); // the band survives closing
    h.key(kEsc);
    EXPECT_EQ(h.state().overlay, Overlay::none());

    h.type(":eq save mío");
    EXPECT_EQ(h.state().status->text, "Preset guardado: mío");
    EXPECT_EQ(h.savedSettings().customPresets.size(), 1u);
    h.type(":eq save JAZZ"); // a built-in name
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
    loadSmallLibrary(h);
    ASSERT_EQ(h.state().artistRows.size(), 8u);
    EXPECT_EQ(artistUnderCursor(h), "Abba");
    // Up from the first artist: it stays, and its letter stays in view.
    h.key(kUp);
    EXPECT_EQ(h.state().artists.cursor, 1);
    EXPECT_EQ(h.state().artists.offset, 0);

    h.press({kDown, ch("j")}); // skips the letter B
    EXPECT_EQ(artistUnderCursor(h), "Beck");
    // The library pane follows the artist under the cursor.
    EXPECT_EQ(h.state().shownArtist, std::optional<int>(4));
    EXPECT_EQ(AppController::trackPaths(h.state().libraryRows).size(), 1u);

    // Each step: key, artist under the cursor, first visible row.
    const std::vector<std::tuple<Key, std::string, int>> steps = {
        {kEnd, "Cher", 2},                   // the cursor on the last visible line
        {kDown, "Cher", 2},                  // nothing below
        {kUp, "Blur", 2},                    // over the letter C
        {kUp, "Beck", 2},   {kUp, "Air", 1}, // over the letter B: one row of context stays above
        {kHome, "Abba", 0}, {kPageDown, "Cher", -1},
    };
    for (const auto& [key, artist, offset] : steps) {
        h.key(key);
        EXPECT_EQ(artistUnderCursor(h), artist);
        if (offset >= 0) {
            EXPECT_EQ(h.state().artists.offset, offset) << artist;
        }
    }
}

TEST(ControllerNavigation, LibraryCursorLandsOnAlbumsAndTracksOnlyAndSearchJumps) {
    ControllerHarness h;
    loadSmallLibrary(h);
    h.c().jumpToArtist("blur");
    ASSERT_EQ(artistUnderCursor(h), "Blur");
    // Parklife: album, disc 1, Girls, Tracy, disc 2, Bank; a spacer; Think with its
    // fillers up to five rows.
    const auto& rows = h.state().libraryRows;
    ASSERT_EQ(rows.size(), 6u + 1u + 5u);
    EXPECT_TRUE(rows[1].is<LibraryRow::Disc>());
    EXPECT_TRUE(rows[11].is<LibraryRow::Filler>());

    h.key(kEnter); // from the artist pane Enter moves to the library pane
    EXPECT_EQ(h.state().focus, Focus::library);
    const std::vector<std::pair<Key, std::string>> steps = {
        {kEnd, "Ambulance"}, // the fillers below the last track cannot hold the cursor
        {kPageDown, "Ambulance"}, {kHome, "<album>"}, {kDown, "Girls"},   // over the disc
        {kDown, "Tracy"},         {kDown, "Bank"},    {kDown, "<album>"}, // over the spacer
    };
    for (const auto& [key, name] : steps) {
        h.key(key);
        EXPECT_EQ(libraryRowName(h), name);
    }

    // The search jumps to the first artist whose key starts with the text.
    h.key(ch("/"));
    EXPECT_EQ(h.state().focus, Focus::artists);
    h.keys("CH");
    EXPECT_EQ(artistUnderCursor(h), "Cher");
    h.keys("x");
    EXPECT_TRUE(h.state().searchMiss);
    EXPECT_EQ(artistUnderCursor(h), "Cher");
    h.key(kBackspace);
    EXPECT_FALSE(h.state().searchMiss);
    h.key(kEsc); // back where it started
    EXPECT_EQ(artistUnderCursor(h), "Blur");
    h.keys("/a");
    h.key(kEnter); // keeps what it found
    EXPECT_EQ(artistUnderCursor(h), "Abba");
    h.keys("/b");
    h.key(kBackspace); // emptied: back to the origin
    EXPECT_EQ(artistUnderCursor(h), "Abba");
}

TEST(ControllerNavigation, FocusCycleAndPlayerButtons) {
    ControllerHarness h;
    loadSmallLibrary(h);
    for (auto [key, focus] : std::vector<std::pair<Key, Focus>>{{kTab, Focus::library},
                                                                {kTab, Focus::player},
                                                                {kTab, Focus::artists},
                                                                {kBackTab, Focus::player}}) {
        h.key(key);
        EXPECT_EQ(h.state().focus, focus);
    }

    // In the player pane ← → walk the buttons, wrapping at both ends.
    EXPECT_EQ(h.state().playerButton, PlayerButton::playPause);
    h.press({kRight, kRight});
    EXPECT_EQ(h.state().playerButton, PlayerButton::repeatMode);
    h.key(kRight);
    EXPECT_EQ(h.state().playerButton, PlayerButton::shuffle);
    h.key(kLeft);
    EXPECT_EQ(h.state().playerButton, PlayerButton::repeatMode);

    // Enter presses the button: repeat off → all → one → off, saved each time.
    h.key(kEnter);
    EXPECT_EQ(h.savedSettings().repeatMode, RepeatMode::all);
    h.key(ch("r"));
    EXPECT_EQ(h.c().playback().queue().repeatMode, RepeatMode::one);
    h.key(kEnter);
    EXPECT_EQ(h.state().settings.repeatMode, RepeatMode::off);
    h.c().press(PlayerButton::shuffle);
    EXPECT_TRUE(h.c().playback().queue().shuffle);
    EXPECT_TRUE(h.savedSettings().shuffle);

    // ↑ ↓ change the volume here and unmute; pages do nothing.
    h.key(ch("m"));
    EXPECT_TRUE(h.state().muted);
    h.key(kUp);
    EXPECT_FALSE(h.state().muted);
    EXPECT_FLOAT_EQ(h.state().settings.volume, 0.85f);
    h.press({kDown, kDown});
    EXPECT_FLOAT_EQ(h.savedSettings().volume, 0.75f);
    const auto artists = h.state().artists;
    h.key(kPageDown);
    EXPECT_EQ(h.state().artists, artists);
    for (int i = 0; i < 30; ++i)
        h.key(ch("+"));
    EXPECT_FLOAT_EQ(h.state().settings.volume, 1.0f);

    // ← and → outside the player pick the panes.
    h.press({kTab, kRight});
    EXPECT_EQ(h.state().focus, Focus::library);
    h.key(kLeft);
    EXPECT_EQ(h.state().focus, Focus::artists);
}

TEST(ControllerSelection, MarksAndTargets) {
    ControllerHarness h;
    loadSmallLibrary(h);
    h.c().jumpToArtist("blur");
    const auto all = AppController::trackPaths(h.state().libraryRows);
    ASSERT_EQ(all.size(), 4u);
    const auto& marked = h.state().marked;

    // In the artist pane the target is the shown artist's every track.
    EXPECT_EQ(h.c().targetPaths(), all);
    // x on an album marks its tracks; again unmarks them; on a partly marked one, the rest.
    h.press({kEnter, ch("x")});
    EXPECT_EQ(marked.size(), 3u);
    h.key(ch("x"));
    EXPECT_TRUE(marked.empty());
    h.press({kDown, ch("x"), kHome, ch("x")});
    EXPECT_EQ(marked.size(), 3u);

    // Targets are the marks in list order whatever the cursor says.
    h.press({kEnd, ch("x")});
    EXPECT_EQ(h.c().targetPaths(), all);

    // Esc clears the marks only; a second Esc hides the lyrics.
    h.press({ch("l"), kEsc});
    EXPECT_TRUE(marked.empty());
    EXPECT_TRUE(h.state().lyricsVisible);
    h.key(kEsc);
    EXPECT_FALSE(h.state().lyricsVisible);

    // Shift+↑ paints a range (album rows, spacers and discs add nothing), never unmarks.
    h.key(kShiftUp); // Ambulance, onto the album Think
    EXPECT_EQ(marked, (std::set<std::string>{all[3]}));
    h.press({kShiftUp, kShiftUp}); // onto Bank, then Tracy
    EXPECT_EQ(marked, (std::set<std::string>{all[1], all[2], all[3]}));
    h.key(Key(Key::Kind::shiftDown));
    EXPECT_EQ(marked.size(), 3u);

    // Marked paths that are not shown go last.
    h.c().jumpToArtist("abba");
    h.press({kHome, ch("x")});
    auto targets = h.c().targetPaths();
    ASSERT_EQ(targets.size(), 4u);
    EXPECT_NE(targets[0].find("Abba"), std::string::npos);
    EXPECT_EQ(std::vector<std::string>(targets.begin() + 1, targets.end()),
              std::vector<std::string>(all.begin() + 1, all.end()));
    h.key(kEsc);
    EXPECT_EQ(h.c().targetPaths().size(), 1u); // the album under the cursor
    h.key(kTab);
    EXPECT_TRUE(h.c().targetPaths().empty()); // player pane, nothing playing
}

TEST(ControllerMouse, ClicksWheelButtonsAndDoubleClicks) {
    ControllerHarness h;
    loadSmallLibrary(h);
    const Layout& l = h.c().layout();
    // A press after `gap` at a cell of the artist list (a) or library list (l).
    auto click = [&](std::chrono::milliseconds gap, char pane, int x, int y) {
        h.clock += gap;
        const Rect& r = pane == 'a' ? l.artistsList : l.libraryList;
        h.c().handleMouse({MouseEvent::Kind::press, r.x + x, r.y + y});
    };

    // A click on an artist selects and shows it; on a letter it snaps forward; below
    // the last row it takes the last artist.
    for (auto [row, artist] :
         std::vector<std::pair<int, std::string>>{{5, "Blur"}, {3, "Beck"}, {20, "Cher"}}) {
        click(1s, 'a', 3, row);
        EXPECT_EQ(artistUnderCursor(h), artist);
    }

    // A double click (same row, under 3 columns apart, under 0.4 s) is Enter.
    click(1s, 'a', 3, 4);
    click(399ms, 'a', 5, 4);
    EXPECT_EQ(h.state().focus, Focus::library);
    // Too slow, too far, another row: single clicks.
    click(1s, 'a', 3, 4);
    click(400ms, 'a', 3, 4);
    click(100ms, 'a', 6, 4);
    click(100ms, 'a', 6, 1);
    EXPECT_EQ(h.state().focus, Focus::artists);
    // A third quick click after a double click counts as another one.
    click(1s, 'l', 20, 0);
    click(100ms, 'l', 20, 0);
    h.key(kTab);
    for (int i = 0; i < 3; ++i)
        click(100ms, 'a', 1, 1);
    EXPECT_EQ(h.state().focus, Focus::library);

    // The search hint opens the search; with an overlay open the mouse does nothing.
    h.clock += 1s;
    h.c().handleMouse({MouseEvent::Kind::press, l.artistsSearch.x + 2, l.artistsSearch.y});
    EXPECT_EQ(h.state().overlay, Overlay::prompt(PromptKind::search));
    const auto cursor = h.state().artists;
    click(1s, 'a', 3, 7);
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

    // Buttons; below the minimum size nothing reacts.
    auto pressShuffle = [&] {
        const Rect b = h.c().layout().buttons.at(PlayerButton::shuffle);
        h.clock += 1s;
        h.c().handleMouse({MouseEvent::Kind::press, b.x + 1, b.y});
    };
    pressShuffle();
    EXPECT_TRUE(h.state().settings.shuffle);
    h.c().resize({59, 40});
    pressShuffle();
    EXPECT_TRUE(h.state().settings.shuffle);
}

TEST(ControllerStatus, MessagesExpireAndTheScreenIsRedrawn) {
    ControllerHarness h;
    const auto t0 = h.clock;
    h.c().report("Hola");
    ASSERT_TRUE(h.state().status);
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

TEST(ControllerRobustness, RandomInputKeepsTheListsConsistent) {
    ControllerHarness h;
    loadSmallLibrary(h);
    std::mt19937 rng(1234);
    using K = Key::Kind;
    std::vector<Key> keys = {Key::function(8), ch("é")};
    for (K k : {K::up, K::down, K::enter, K::escape, K::tab, K::backTab, K::left, K::right, K::home,
                K::end, K::pageDown, K::pageUp, K::shiftUp, K::shiftDown, K::backspace, K::delete_})
        keys.emplace_back(k);
    for (char c : std::string("auwc"))
        keys.push_back(Key::ctrl(c));
    for (char c : std::string("jkhlLx/:?=tabdpPrsm05+- eEnq\""))
        keys.push_back(Key::character(std::string(1, c)));
    const std::vector<Size> sizes = {{100, 40}, {59, 20}, {80, 24}, {60, 16},
                                     {200, 60}, {30, 5},  {81, 17}};
    const MouseEvent::Kind kinds[] = {MouseEvent::Kind::press, MouseEvent::Kind::drag,
                                      MouseEvent::Kind::release, MouseEvent::Kind::scrollUp,
                                      MouseEvent::Kind::scrollDown};
    const std::string pastes[] = {"", "a\nb", "Be", "\xff\xfe", "vol 200", "~/nada", "ch"};

    // Each list's cursor is in range, inside the viewport and on a row it may hold.
    auto listOk = [](const ListViewport& v, const auto& rows, int height, auto holds) {
        const int count = static_cast<int>(rows.size());
        if (count == 0) return v.cursor == 0;
        return v.cursor >= 0 && v.cursor < count &&
               holds(rows[static_cast<std::size_t>(v.cursor)]) &&
               (height < 1 || (v.offset <= v.cursor && v.cursor < v.offset + height));
    };
    for (int step = 0; step < 4000; ++step) {
        const int what = static_cast<int>(rng() % 100);
        try {
            if (what < 75) {
                h.key(keys[rng() % keys.size()]);
            } else if (what < 90) {
                h.clock += std::chrono::milliseconds(rng() % 600);
                h.c().handleMouse({kinds[rng() % 5], static_cast<int>(rng() % 220) - 10,
                                   static_cast<int>(rng() % 70) - 5});
            } else if (what < 95) {
                h.c().handlePaste(pastes[rng() % 7]);
            } else if (what < 97) {
                h.c().resize(sizes[rng() % sizes.size()]);
            } else {
                h.settle();
            }
        } catch (const QuitCalled&) {
            // Quitting ends a real process; here the run simply goes on.
        }
        const AppState& s = h.state();
        const Layout& l = h.c().layout();
        ASSERT_TRUE(listOk(s.artists, s.artistRows, l.artistsList.height,
                           [](const ArtistRow& r) { return r.is<ArtistRow::Artist>(); }))
            << "artists, step " << step;
        ASSERT_TRUE(listOk(s.library, s.libraryRows, l.libraryList.height,
                           [](const LibraryRow& r) {
                               return r.is<LibraryRow::Album>() || r.is<LibraryRow::Track>();
                           }))
            << "library, step " << step;
        ASSERT_TRUE(s.settings.volume >= 0.0f && s.settings.volume <= 1.0f) << "step " << step;
    }
    h.settle();
}
