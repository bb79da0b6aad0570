// SPDX-License-Identifier: GPL-3.0-or-later
// Tag editing in the real program on a real terminal: typing into the form, the tag
// document in vi, the lyrics through an editor script, and an editor that does not exist;
// and playback heard through PulseAudio while the playing album is written.

#include "TagFiles.h"
#include "app/TmuxSession.h"
#include "media/TagLibFile.h"
#include "playback/PulseHarness.h"
#include "support/SessionBus.h"
#include "tags/TagEditor.h"
#include "tags/WriteJournal.h"

using namespace trovan;
using namespace trovan::e2e;

namespace {

std::string value(const fs::path& file, const std::string& key) {
    auto props = TagEditor::properties({file.string()}).front();
    auto it = props.find(key);
    return it == props.end() || it->second.empty() ? "" : it->second.front();
}

} // namespace

TEST(TagEditingTmux, FormTagDocumentLyricsAndAMissingEditor) {
    if (!haveTmux() || !fixtures::available() || !fixtures::onPath("vi"))
        GTEST_SKIP() << "tmux, ffmpeg or vi missing";
    Session s;
    const fs::path music = makeMusic(s.dir());
    // The tag document goes to vi; the lyrics are written by the script itself. vi edits
    // a copy with a short name: whatever vi the system has (vim.tiny starts in vi mode),
    // the file-name message fits the window and asks for no Enter.
    const fs::path editor = s.dir() / "editor.sh";
    std::ofstream(editor) << "case \"$1\" in\n"
                             "  *tags.txt) cd \"$(dirname \"$0\")\" && cp \"$1\" t.txt && vi t.txt &&"
                             " cp t.txt \"$1\" ;;\n"
                             "  *letra.txt) printf 'Hola\\nmundo\\n' > \"$1\" ;;\n"
                             "esac\n";
    ::setenv("EDITOR", ("sh " + editor.string()).c_str(), 1);
    ::unsetenv("VISUAL");
    s.start({music.string()});
    ASSERT_TRUE(s.waitFor("4 canciones · 3 artistas")) << s.screen();

    // Alfa's album: the form, down to the genre, typed, saved.
    s.keys("Enter");
    s.keys("e");
    ASSERT_TRUE(s.waitFor("Artista del álbum")) << s.screen();
    s.keys("Down Down Down Down Down Down Down");
    s.text("Jazz");
    s.keys("Enter");
    ASSERT_TRUE(s.waitFor("Tags guardados en 2 pistas")) << s.screen();
    EXPECT_EQ(value(music / "alfa-1.flac", "GENRE"), "Jazz");
    EXPECT_EQ(value(music / "alfa-2.flac", "GENRE"), "Jazz");
    EXPECT_EQ(value(music / "beta-1.flac", "GENRE"), "");

    // The whole document in vi, on the terminal the program handed over.
    s.keys("E");
    ASSERT_TRUE(s.waitFor("# Trovan · editando 2 pistas")) << s.screen();
    s.text(":%s/^ALBUM: .*/ALBUM: Nuevo/");
    s.keys("Enter");
    s.text(":wq");
    s.keys("Enter");
    ASSERT_TRUE(waitUntil([&] { return value(music / "alfa-2.flac", "ALBUM") == "Nuevo"; }))
        << s.screen();
    EXPECT_TRUE(s.waitForSession()) << s.flags();
    ASSERT_TRUE(s.waitFor("NUEVO ·")) << s.screen();
    EXPECT_EQ(s.screen().find("# Trovan"), npos) << "the editor's screen was not redrawn over";
    EXPECT_EQ(value(music / "alfa-1.flac", "GENRE"), "Jazz");

    // Lyrics of the track under the cursor.
    s.keys("Down");
    s.keys("L");
    ASSERT_TRUE(s.waitFor("Tags guardados en 1 pista")) << s.screen();
    EXPECT_EQ(value(music / "alfa-1.flac", "LYRICS"), "Hola\nmundo");

    // Rewriting the playing file: it plays on from where it was.
    s.keys("Enter");
    ASSERT_TRUE(s.waitFor(" 0:02 ━")) << s.screen();
    s.command(":cover remove");
    ASSERT_TRUE(s.waitFor("Carátula eliminada en 1 pista")) << s.screen();
    EXPECT_EQ(s.screen().find(" 0:00 ━"), npos) << s.screen();
    EXPECT_NE(s.line(38).find("❚❚"), npos) << s.line(38);
    EXPECT_TRUE(s.waitFor(" 0:04 ━")) << s.screen();

    // An editor that does not exist: nothing changes and the screen comes back.
    s.quit();
    const std::string before = fixtures::runProcess({"md5sum", (music / "alfa-1.flac").string(),
                                                     (music / "alfa-2.flac").string()})
                                   .output;
    ::setenv("EDITOR", "no-existe-este-editor", 1);
    s.start({music.string()});
    ASSERT_TRUE(s.waitFor("NUEVO ·")) << s.screen();
    s.keys("Enter");
    s.keys("E");
    ASSERT_TRUE(s.waitForSession()) << s.flags();
    ASSERT_TRUE(s.waitFor("BIBLIOTECA · ALFA")) << s.screen();
    s.keys("L");
    ASSERT_TRUE(s.waitForSession()) << s.flags();
    std::this_thread::sleep_for(300ms);
    EXPECT_NE(s.screen().find("BIBLIOTECA · ALFA"), npos) << s.screen();
    EXPECT_EQ(before, fixtures::runProcess({"md5sum", (music / "alfa-1.flac").string(),
                                            (music / "alfa-2.flac").string()})
                          .output);
    s.quit();
    ::unsetenv("EDITOR");
}

// The playing album rewritten three times (every file replaced by a rename): the first
// batch is heard without a gap; `n` pressed during the second and a pause during the
// third still stand when each batch ends, on the screen and on the session bus alike.
TEST(TagEditingTmux, PlaybackFollowsTheUserWhileThePlayingAlbumIsWritten) {
    if (!haveTmux() || !trovan::testing::canRunPulse() || !fixtures::SessionBus::available() ||
        !fixtures::onPath("playerctl"))
        GTEST_SKIP() << "tmux, ffmpeg, pulseaudio, dbus-daemon or playerctl missing";
    Session s;
    fixtures::SessionBus bus;
    s.busAddress = bus.address();
    trovan::testing::PulseServer pulse(s.dir() / "pulse");
    ASSERT_GT(pulse.pid, 0) << "pulseaudio did not start";
    // The tmux server, and so the program, takes the sound server from here.
    ::setenv("PULSE_SERVER", ("unix:" + (s.dir() / "pulse" / "pulse" / "native").string()).c_str(),
             1);
    ::setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), 1);
    auto playerctl = [](const std::string& what) {
        return trim(fixtures::runProcess({"playerctl", "-p", "trovan", "metadata", what}).output);
    };
    auto status = [] {
        return trim(fixtures::runProcess({"playerctl", "-p", "trovan", "status"}).output);
    };

    const fs::path music = s.dir() / "musica";
    fs::create_directories(music);
    fixtures::Tone tone;
    tone.seconds = 30;
    tone.tags = {{"ARTIST", {"Alfa"}}, {"ALBUM", {"Veinte"}}};
    const fs::path source = fixtures::cached("e2e-veinte.flac", tone);
    for (int i = 1; i <= 20; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "%02d", i);
        const fs::path file = fixtures::copyTo(source, music, std::string(name) + ".flac");
        auto tags = TagLibFile::open(file.string());
        ASSERT_TRUE(tags);
        tags->set("TITLE", {std::string("Pista ") + name});
        tags->set("TRACKNUMBER", {std::to_string(i)});
        ASSERT_TRUE(tags->save());
    }
    s.start({music.string()});
    ASSERT_TRUE(s.waitFor("20 canciones")) << s.screen();
    s.keys("Enter");
    s.keys("Down");
    s.keys("Enter");
    ASSERT_TRUE(s.waitFor(" 0:01 ━")) << s.screen();
    ASSERT_TRUE(waitUntil([&] { return playerctl("xesam:title") == "Pista 01"; })) << s.screen();

    // Back on the album row, the form: the genre typed, saved for the 20 files.
    auto saveAlbum = [&](const std::string& genre) {
        s.keys("Up");
        s.keys("e");
        ASSERT_TRUE(s.waitFor("Artista del álbum")) << s.screen();
        s.keys("Down Down Down Down Down Down Down");
        s.text(genre);
        s.keys("Enter");
    };
    auto saved = [&] {
        const bool shown = s.waitFor("Tags guardados en 20 pistas");
        // The next batch must not be taken for this one.
        s.waitGone("Tags guardados");
        return shown;
    };

    {
        trovan::testing::SinkRecorder recorder(20);
        const auto began = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(300ms);
        saveAlbum("Jazz");
        ASSERT_TRUE(s.waitFor("Tags guardados en 20 pistas")) << s.screen();
        // At least 1.5 s heard in all, however quickly the batch went.
        std::this_thread::sleep_until(std::max(std::chrono::steady_clock::now() + 300ms,
                                               began + 1500ms));
        const auto heard = recorder.take().left;
        ASSERT_GT(heard.size(), trovan::testing::sinkRate); // more than a second
        // A sine never holds zero. Letting the track go for the batch, as a write in place
        // must, silences it for the whole batch; an ASan build on a loaded machine may
        // drop a few milliseconds while the library reloads, which is not what is sought.
        int silent = 0, longest = 0;
        for (float x : heard) {
            silent = std::fabs(x) < 1e-6f ? silent + 1 : 0;
            longest = std::max(longest, silent);
        }
        EXPECT_LT(longest, int(trovan::testing::sinkRate / 10))
            << "a gap of " << longest << " samples while the files were written";
        EXPECT_GT(trovan::testing::measure(heard.data(), heard.size()).levelDb, -30);
    }
    s.waitGone("Tags guardados");
    EXPECT_EQ(playerctl("xesam:title"), "Pista 01");

    saveAlbum("Rock");
    s.keys("n");
    ASSERT_TRUE(saved()) << s.screen();
    EXPECT_TRUE(waitUntil([&] { return playerctl("xesam:title") == "Pista 02"; }, 5s))
        << playerctl("xesam:title");
    EXPECT_EQ(status(), "Playing");
    std::string player; // the bottom of the screen, below the lists
    for (int y = 35; y < 40; ++y)
        player += s.line(y) + "\n";
    EXPECT_NE(player.find("Pista 02"), npos) << player;
    EXPECT_EQ(player.find("Pista 01"), npos) << player;
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(playerctl("xesam:title"), "Pista 02") << "the old track came back";

    saveAlbum("Pop");
    s.keys("Space");
    ASSERT_TRUE(saved()) << s.screen();
    EXPECT_EQ(status(), "Paused");
    EXPECT_EQ(s.line(38).find("❚❚"), npos) << s.line(38);
    EXPECT_EQ(playerctl("xesam:title"), "Pista 02");

    // Quitting in the middle of a batch: each file is the old or the new version, the
    // journal is closed and nothing of ours is left beside the music.
    saveAlbum("Folk");
    s.text("q");
    s.expectCleanExit();
    int written = 0;
    for (int i = 1; i <= 20; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "%02d.flac", i);
        const std::string genre = value(music / name, "GENRE");
        EXPECT_TRUE(genre == "JazzRockPop" || genre == "JazzRockPopFolk") << name << " " << genre;
        written += genre == "JazzRockPopFolk";
    }
    // Cut short, the shell is told how far it got.
    if (written < 20) {
        EXPECT_TRUE(s.outputHas("Se guardaron " + std::to_string(written) + " de 20 archivos"))
            << written;
    }
    EXPECT_TRUE(tagfiles::workFiles(music).empty());
    EXPECT_EQ(WriteJournal(s.home() / "escrituras.diario").openEntries(), 0u);
    ::unsetenv("PULSE_SERVER");
}
