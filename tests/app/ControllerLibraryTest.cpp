// The library flows: folders added and removed, rescans queued behind a running one,
// reloads that keep the user's place, and covers.

#include "ControllerHarness.h"

#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace trovan;
using namespace trovan::testing;

namespace fs = std::filesystem;

TEST(ControllerLibrary, FoldersAreNormalisedAndCheckedBeforeTheyAreStored) {
    ControllerHarness h;
    const fs::path music = h.home.subdir("music");
    std::ofstream(music / "song.mp3") << "x";
    const std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    setenv("HOME", h.home.path().c_str(), 1);
    h.c().addRoot("~/music", false);
    setenv("HOME", savedHome.c_str(), 1);
    EXPECT_EQ(h.savedSettings().roots, std::vector<std::string>{music.string()});
    EXPECT_EQ(h.state().status->text, "Carpeta agregada: " + music.string());

    const fs::path cwd = fs::current_path();
    fs::current_path(h.home.path()); // relative paths are taken from the working folder
    const std::string m = music.string();
    // Each request, and the message it gets.
    const std::pair<std::string, std::string> requests[] = {
        {m + "/", "La carpeta ya estaba agregada"},
        {m + "/./", "La carpeta ya estaba agregada"},
        {m + "/../music", "La carpeta ya estaba agregada"},
        {m + "//", "La carpeta ya estaba agregada"},
        {"music/", "La carpeta ya estaba agregada"},
        {m + "/./song.mp3", "!No existe la carpeta: " + m + "/song.mp3"},
        {m + "/nope", "!No existe la carpeta: " + m + "/nope"},
        {"-" + m + "/other", "!No está en la lista: " + m + "/other"},
        {"-" + m + "/", "Carpeta quitada: " + m}};
    for (const auto& [path, message] : requests) {
        if (path[0] == '-')
            h.c().removeRoot(path.substr(1));
        else
            h.c().addRoot(path, false);
        EXPECT_EQ(h.state().status->isError, message[0] == '!') << path;
        EXPECT_EQ(h.state().status->text, message.substr(message[0] == '!')) << path;
        if (path[0] != '-') {
            EXPECT_EQ(h.state().settings.roots.size(), 1u) << path;
        }
    }
    fs::current_path(cwd);
    EXPECT_TRUE(h.savedSettings().roots.empty());
    h.settle();
}

TEST(ControllerLibrary, RequestsDuringAScanCollapseIntoOneForcedScan) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    ControllerHarness h;
    const fs::path music = h.home.subdir("music");
    fixtures::Tone tone;
    tone.seconds = 0.2;
    for (const char* name : {"a.flac", "b.flac"})
        fixtures::copyTo(fixtures::cached("ctl-a.flac", tone), music, name);

    // Start-up: the scan is under way from the first frame.
    h.c().start({music.string()});
    ASSERT_TRUE(h.state().indexing);
    EXPECT_TRUE(h.c().isScanning());
    h.settle();

    // A rescan, and three more requests, one forced, while it runs (the main queue
    // does not run in between): one more scan follows, and it reads everything.
    for (bool force : {false, false, true, false})
        h.c().reindex(force);
    h.settle();
    EXPECT_FALSE(h.state().indexing);
    EXPECT_FALSE(h.c().isScanning());
    std::vector<std::string> summaries;
    for (const auto& r : h.reports)
        if (r.text.rfind("Biblioteca al día", 0) == 0)
            summaries.push_back(r.text.substr(0, r.text.find(" (")));
    EXPECT_EQ(summaries,
              (std::vector<std::string>{"Biblioteca al día: 2 archivos · 2 leídos · 0 quitados",
                                        "Biblioteca al día: 2 archivos · 0 leídos · 0 quitados",
                                        "Biblioteca al día: 2 archivos · 2 leídos · 0 quitados"}));
}

TEST(ControllerLibrary, ReloadKeepsTheArtistTheTrackAndOnlyLiveMarks) {
    ControllerHarness h;
    const Track believe = fakeTrack("Cher", "Believe", 1, "Believe"),
                strong = fakeTrack("Cher", "Believe", 2, "Strong"),
                intro = fakeTrack("Cher", "Believe", 0, "Intro");
    load(h, {fakeTrack("Blur", "Parklife", 1, "Girls"), believe, strong});
    h.c().jumpToArtist("cher");
    h.press({Key(Key::Kind::enter), Key(Key::Kind::down), Key::character("x"), Key(Key::Kind::down),
             Key::character("x")});
    ASSERT_EQ(libraryRowName(h), "Strong");
    ASSERT_EQ(h.state().marked.size(), 2u);

    // New artists above, a new track above the cursor, and a marked track gone.
    h.store().apply(
        {fakeTrack("Abba", "Gold", 1, "Uno"), fakeTrack("Beck", "Odelay", 1, "Dos"), intro},
        {believe.path});
    h.c().reloadLibrary();
    h.settle();
    EXPECT_EQ(artistUnderCursor(h), "Cher");
    EXPECT_EQ(h.state().shownArtist, h.state().artists.cursor);
    EXPECT_EQ(libraryRowName(h), "Strong");
    EXPECT_EQ(h.state().marked, std::set<std::string>{strong.path});

    // When the shown artist disappears the cursor goes to the first artist.
    h.store().apply({}, {strong.path, intro.path});
    h.c().reloadLibrary();
    h.settle();
    EXPECT_EQ(artistUnderCursor(h), "Abba");
    EXPECT_TRUE(h.state().marked.empty());
}

TEST(ControllerLibrary, AlbumsArePaddedForCoversOnlyInWidePanes) {
    // 81 columns leave a 50-column library pane, 80 columns a 49-column one.
    ControllerHarness h({81, 30});
    load(h, {fakeTrack("Blur", "Parklife", 1, "Girls"),
             fakeTrack("Blur", "Think", 1, "Ambulance", 1, 2003)});
    // The cursor on the second album's track stays on it as the rows are rebuilt.
    h.press({Key(Key::Kind::tab), Key(Key::Kind::end)});
    for (auto [width, rows] : {std::pair{81, 5u + 1u + 5u}, {80, 2u + 1u + 2u}, {81, 11u}}) {
        h.c().resize({width, 30});
        ASSERT_EQ(h.c().layout().libraryList.width, width - 31);
        EXPECT_EQ(h.state().libraryRows.size(), rows) << width; // each album's rows, a spacer
        EXPECT_EQ(libraryRowName(h), "Ambulance");
    }
}

TEST(ControllerLibrary, CoversAreDecodedForTheShownAlbumsAndThePlayingTrack) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    ControllerHarness h;
    const fs::path music = h.home.subdir("music");
    fixtures::Tone tone;
    tone.seconds = 0.5;
    tone.tags = {{"ARTIST", {"Pintor"}}, {"ALBUM", {"Rojo"}}, {"TITLE", {"Uno"}}};
    tone.covers = {fixtures::Cover{}};
    fixtures::copyTo(fixtures::cached("ctl-cover.flac", tone), music, "uno.flac");
    tone.tags = {{"ARTIST", {"Pintor"}}, {"ALBUM", {"Sin tapa"}}, {"TITLE", {"Dos"}}};
    tone.covers = {};
    fixtures::copyTo(fixtures::cached("ctl-nocover.flac", tone), music, "dos.flac");

    h.c().start({music.string()});
    h.settle();
    ASSERT_EQ(h.state().albumCovers.size(), 2u);
    int withPixels = 0;
    for (const auto& [key, art] : h.state().albumCovers) {
        if (!art.pixels) continue;
        ++withPixels;
        ASSERT_EQ(art.pixels->size(),
                  static_cast<std::size_t>(Layout::albumCoverColumns * 2 * Layout::albumCoverRows));
        EXPECT_GT(art.pixels->front().r, 200); // the generated cover is red
    }
    EXPECT_EQ(withPixels, 1);

    // Playing a track decodes its picture, if it has one, at the player's size.
    h.press({Key(Key::Kind::tab), Key(Key::Kind::end), Key(Key::Kind::enter)});
    h.settle();
    ASSERT_TRUE(h.state().playback.track);
    ASSERT_TRUE(h.state().cover);
    EXPECT_EQ(h.state().cover->key, h.state().playback.track->path);
    EXPECT_EQ(h.state().cover->pixels.has_value(), h.state().playback.track->title == "Uno");
}
