// The library flows: folders added and removed, rescans queued behind a running one,
// and reloads that keep the user's place.

#include "ControllerHarness.h"

#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace trovan;
using namespace trovan::testing;

namespace fs = std::filesystem;

namespace {

// The scan summaries shown so far, without their timing.
std::vector<std::string> summaries(const ControllerHarness& h) {
    std::vector<std::string> out;
    for (const auto& r : h.reports)
        if (r.text.rfind("Biblioteca al día", 0) == 0)
            out.push_back(r.text.substr(0, r.text.find(" (")));
    return out;
}

std::string cursorTrackPath(const ControllerHarness& h) {
    const auto& row = h.state().libraryRows.at(static_cast<std::size_t>(h.state().library.cursor));
    const auto* t = row.get<LibraryRow::Track>();
    return t ? t->track.path : "";
}

} // namespace

TEST(ControllerLibrary, FoldersAreNormalisedAndCheckedBeforeTheyAreStored) {
    ControllerHarness h;
    const fs::path music = h.home.subdir("music");
    const std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    setenv("HOME", h.home.path().c_str(), 1);

    h.c().addRoot("~/music", false);
    setenv("HOME", savedHome.c_str(), 1);
    EXPECT_EQ(h.state().settings.roots, std::vector<std::string>{music.string()});
    EXPECT_EQ(h.savedSettings().roots, h.state().settings.roots);
    EXPECT_EQ(h.state().status->text, "Carpeta agregada: " + music.string());

    for (const std::string& again : {music.string() + "/", music.string() + "/./",
                                     music.string() + "/../music", music.string() + "//"}) {
        h.c().addRoot(again, false);
        EXPECT_EQ(h.state().status->text, "La carpeta ya estaba agregada") << again;
        EXPECT_FALSE(h.state().status->isError);
    }
    EXPECT_EQ(h.state().settings.roots.size(), 1u);

    // A file and a missing folder are refused, naming the normalised path.
    std::ofstream(music / "song.mp3") << "x";
    h.c().addRoot(music.string() + "/./song.mp3", false);
    EXPECT_EQ(h.state().status->text, "No existe la carpeta: " + (music / "song.mp3").string());
    EXPECT_TRUE(h.state().status->isError);
    h.c().addRoot((music / "nope").string(), false);
    EXPECT_TRUE(h.state().status->isError);
    EXPECT_EQ(h.state().settings.roots.size(), 1u);

    // Relative paths are taken from the working folder.
    const fs::path cwd = fs::current_path();
    fs::current_path(h.home.path());
    h.c().addRoot("music/", false);
    fs::current_path(cwd);
    EXPECT_EQ(h.state().status->text, "La carpeta ya estaba agregada");

    h.c().removeRoot((music / "other").string());
    EXPECT_EQ(h.state().status->text, "No está en la lista: " + (music / "other").string());
    EXPECT_TRUE(h.state().status->isError);
    h.c().removeRoot(music.string() + "/");
    EXPECT_EQ(h.state().status->text, "Carpeta quitada: " + music.string());
    EXPECT_TRUE(h.state().settings.roots.empty());
    EXPECT_TRUE(h.savedSettings().roots.empty());
    h.settle();
}

TEST(ControllerLibrary, RequestsDuringAScanCollapseIntoOneForcedScan) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    ControllerHarness h;
    const fs::path music = h.home.subdir("music");
    fixtures::Tone tone;
    tone.seconds = 0.2;
    fixtures::copyTo(fixtures::cached("ctl-a.flac", tone), music, "a.flac");
    fixtures::copyTo(fixtures::cached("ctl-a.flac", tone), music, "b.flac");

    // Start-up: the scan is under way from the first frame.
    h.c().start({music.string()});
    ASSERT_TRUE(h.state().indexing);
    EXPECT_EQ(h.state().indexing->total, 0);
    EXPECT_TRUE(h.c().isScanning());
    h.settle();
    EXPECT_EQ(h.state().index.trackCount, 2);

    // A rescan, and three more requests, one forced, while it runs (the main queue
    // does not run in between): one more scan follows, and it reads everything.
    for (bool force : {false, false, true, false})
        h.c().reindex(force);
    h.settle();
    EXPECT_FALSE(h.state().indexing);
    EXPECT_FALSE(h.c().isScanning());
    EXPECT_EQ(summaries(h),
              (std::vector<std::string>{"Biblioteca al día: 2 archivos · 2 leídos · 0 quitados",
                                        "Biblioteca al día: 2 archivos · 0 leídos · 0 quitados",
                                        "Biblioteca al día: 2 archivos · 2 leídos · 0 quitados"}));
}

TEST(ControllerLibrary, ReloadKeepsTheArtistTheTrackAndOnlyLiveMarks) {
    ControllerHarness h;
    load(h,
         {fakeTrack("Blur", "Parklife", 1, "Girls"), fakeTrack("Blur", "Parklife", 2, "Tracy"),
          fakeTrack("Cher", "Believe", 1, "Believe"), fakeTrack("Cher", "Believe", 2, "Strong")});
    h.c().jumpToArtist("cher");
    h.press({Key(Key::Kind::enter), Key(Key::Kind::down), Key(Key::Kind::down)});
    const std::string strong = cursorTrackPath(h);
    ASSERT_NE(strong.find("Strong"), std::string::npos);
    h.press({Key::character("x"), Key(Key::Kind::up), Key::character("x"), Key(Key::Kind::down)});
    ASSERT_EQ(h.state().marked.size(), 2u);
    const std::string believe = *h.state().marked.begin() == strong ? *h.state().marked.rbegin()
                                                                    : *h.state().marked.begin();

    // New artists above, a new track above the cursor, and a marked track gone.
    h.store().apply({fakeTrack("Abba", "Gold", 1, "Uno"), fakeTrack("Beck", "Odelay", 1, "Dos"),
                     fakeTrack("Cher", "Believe", 0, "Intro")},
                    {believe});
    h.c().reloadLibrary();
    h.settle();

    EXPECT_EQ(artistUnderCursor(h), "Cher");
    EXPECT_EQ(h.state().shownArtist, h.state().artists.cursor);
    EXPECT_EQ(cursorTrackPath(h), strong);
    EXPECT_EQ(h.state().marked, std::set<std::string>{strong});

    // When the shown artist disappears the cursor goes to the first artist.
    h.store().apply({}, {strong});
    h.store().apply({}, {fakeTrack("Cher", "Believe", 0, "Intro").path});
    h.c().reloadLibrary();
    h.settle();
    EXPECT_EQ(h.state().artists.cursor, 1);
    EXPECT_TRUE(h.state().marked.empty());
}

TEST(ControllerLibrary, AlbumsArePaddedForCoversOnlyInWidePanes) {
    // 81 columns leave a 50-column library pane, 80 columns a 49-column one.
    ControllerHarness h({81, 30});
    load(h, {fakeTrack("Blur", "Parklife", 1, "Girls"),
             fakeTrack("Blur", "Think", 1, "Ambulance", 1, 2003)});
    ASSERT_EQ(h.c().layout().libraryList.width, 50);
    auto fillers = [&] {
        int n = 0;
        for (const auto& r : h.state().libraryRows)
            n += r.is<LibraryRow::Filler>();
        return n;
    };
    EXPECT_EQ(fillers(), 3 + 3);
    EXPECT_EQ(h.state().libraryRows.size(), 5u + 1u + 5u);

    // Put the cursor on the second album's track; shrinking the pane rebuilds the
    // rows and keeps the cursor on that row.
    h.press({Key(Key::Kind::tab), Key(Key::Kind::end)});
    const auto before = h.state().libraryRows[static_cast<std::size_t>(h.state().library.cursor)];
    h.c().resize({80, 30});
    ASSERT_EQ(h.c().layout().libraryList.width, 49);
    EXPECT_EQ(fillers(), 0);
    EXPECT_EQ(h.state().libraryRows.size(), 2u + 1u + 2u);
    EXPECT_EQ(h.state().libraryRows[static_cast<std::size_t>(h.state().library.cursor)], before);
    h.c().resize({81, 30});
    EXPECT_EQ(fillers(), 6);
    EXPECT_EQ(h.state().libraryRows[static_cast<std::size_t>(h.state().library.cursor)], before);
}

TEST(ControllerLibrary, CoversAreDecodedForTheShownAlbumsAndThePlayingTrack) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    ControllerHarness h({100, 40});
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
    ASSERT_EQ(h.state().index.trackCount, 2);
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

    // Playing the covered track decodes its picture at the player's size.
    h.press({Key(Key::Kind::tab), Key(Key::Kind::end), Key(Key::Kind::enter)});
    h.settle();
    ASSERT_TRUE(h.state().playback.track);
    ASSERT_TRUE(h.state().cover);
    EXPECT_EQ(h.state().cover->key, h.state().playback.track->path);
    const bool covered = h.state().playback.track->title == "Uno";
    EXPECT_EQ(h.state().cover->pixels.has_value(), covered);
}
