// SPDX-License-Identifier: GPL-3.0-or-later
// The queue in the real program: built with a and A, edited in its view, heard in that
// order, saved as a list, exported with paths relative to the list, kept across a restart.

#include "app/TmuxSession.h"

#include <algorithm>

using namespace trovan;
using namespace trovan::e2e;

namespace {

// Alfa's album of three one-second tracks, Beta's of two, and Gamma's six-second track.
fs::path makeShortMusic(const fs::path& music) {
    return writeSongs(music, "queue",
                      {{"alfa/Uno.flac", "Alfa", "Primero", "Uno", 1, 1, 240},
                       {"alfa/Dos.flac", "Alfa", "Primero", "Dos", 2, 1, 280},
                       {"alfa/Tres.flac", "Alfa", "Primero", "Tres", 3, 1, 320},
                       {"beta/Cuatro.flac", "Beta", "Segundo", "Cuatro", 1, 1, 240},
                       {"beta/Cinco.flac", "Beta", "Segundo", "Cinco", 2, 1, 280},
                       {"gamma/Seis.flac", "Gamma", "Tercero", "Seis", 1, 6, 240}});
}

// The title in the player panel (first word of its title row).
std::string playing(Session& s) {
    const std::string row = s.line(35);
    const auto start = row.find_first_not_of(' ');
    if (start == npos) return {};
    return row.substr(start, row.find(' ', start) - start);
}

// Whether `titles` appear on screen top to bottom, each on its own row.
bool inOrder(Session& s, const std::vector<std::string>& titles) {
    const std::string screen = s.screen();
    std::size_t at = 0;
    for (const auto& t : titles) {
        at = screen.find(" " + t + " ·", at);
        if (at == npos) return false;
    }
    return true;
}

} // namespace

TEST(QueueStory, BuiltEditedHeardSavedExportedAndRestored) {
    if (!haveTmux() || !fixtures::available()) GTEST_SKIP() << "tmux or ffmpeg missing";
    Session s;
    const fs::path lib = s.dir() / "lib";
    const fs::path music = makeShortMusic(lib / "music");
    s.start({music.string()});
    ASSERT_TRUE(s.waitFor("Gamma"));

    // Seis plays and is paused; Alfa's album goes to the end, Cinco right after Seis.
    s.keys("j j Enter j Enter");
    ASSERT_TRUE(waitUntil([&] { return playing(s) == "Seis"; }));
    s.keys("Space Left k k Enter a");
    ASSERT_TRUE(s.waitFor("3 canciones añadidas a la cola"));
    s.keys("Left j Enter j j A");
    ASSERT_TRUE(s.waitFor("1 canción se reproducirá a continuación"));
    s.keys("c");
    ASSERT_TRUE(s.waitFor("COLA · 5 canciones"));
    EXPECT_TRUE(inOrder(s, {"Seis", "Cinco", "Uno", "Dos", "Tres"})) << s.screen();
    EXPECT_NE(s.screen().find("▶ Seis"), npos);

    // Cinco one down, Dos out: what is heard follows.
    s.keys("j J j d");
    ASSERT_TRUE(s.waitFor("COLA · 4 canciones"));
    EXPECT_TRUE(inOrder(s, {"Seis", "Uno", "Cinco", "Tres"})) << s.screen();
    EXPECT_EQ(s.screen().find(" Dos ·"), npos);
    s.keys("Escape");
    s.command(":save Mezcla");
    ASSERT_TRUE(s.waitFor("Lista guardada: Mezcla (4 canciones)"));
    EXPECT_TRUE(s.waitFor(" Mezcla"));
    EXPECT_NE(s.screen().find("Listas"), npos);

    std::vector<std::string> heard;
    s.keys("Space");
    waitUntil(
        [&] {
            const std::string now = playing(s);
            if (!now.empty() && (heard.empty() || heard.back() != now)) heard.push_back(now);
            return heard.size() >= 4;
        },
        30s);
    std::this_thread::sleep_for(1500ms); // Tres ends the queue: nothing else starts
    if (playing(s) != heard.back()) heard.push_back(playing(s));
    EXPECT_EQ(heard, (std::vector<std::string>{"Seis", "Uno", "Cinco", "Tres"}));

    // The saved list comes back; it is exported beside the music; everything after
    // Seis is cleared; Seis waits at 0:03.
    s.command(":load Mezcla");
    ASSERT_TRUE(s.waitFor("Lista cargada: 4 canciones"));
    s.keys("Space 5");
    ASSERT_TRUE(s.waitFor("0:03 "));
    s.command(":export " + (lib / "lista").string());
    ASSERT_TRUE(s.waitFor("Cola exportada: 4 canciones"));
    EXPECT_NE(slurp(lib / "lista.m3u8").find("\nmusic/alfa/Uno.flac\n"), npos);
    s.keys("c C");
    ASSERT_TRUE(s.waitFor("3 canciones quitadas de la cola"));
    EXPECT_TRUE(s.waitFor("COLA · 1 canción"));
    s.keys("Escape");
    s.quit();

    // A new start: the list is under "Listas", the queue is back, paused where it was.
    s.start();
    ASSERT_TRUE(s.waitFor("Mezcla"));
    EXPECT_NE(s.screen().find("Listas"), npos);
    ASSERT_TRUE(waitUntil([&] { return playing(s) == "Seis"; }));
    EXPECT_TRUE(s.waitFor("0:03 "));
    std::this_thread::sleep_for(1200ms);
    EXPECT_NE(s.screen().find("0:03 "), npos) << "restored playing";
    s.keys("c");
    ASSERT_TRUE(s.waitFor("COLA · 1 canción"));
    s.keys("Escape");
    s.quit();
}
