// SPDX-License-Identifier: GPL-3.0-or-later
// The real program in tmux, a real terminal emulator, with a private data folder and a
// generated music folder. There is no sound server here, so the engine plays into its
// silent real-time output. The suite runs twice: without a session bus, and with a
// private one that the program publishes its player on.

#include "app/TmuxSession.h"

using namespace trovan;
using namespace trovan::e2e;

#define REQUIRE_TOOLS()                                                                            \
    if (!haveTmux() || !fixtures::available()) GTEST_SKIP() << "tmux or ffmpeg missing"

TEST(Tmux, PlaysSavesRestartsAndFollowsPromptsMouseAndResizes) {
    REQUIRE_TOOLS();
    Session s;
    const fs::path music = makeMusic(s.dir());
    s.start({music.string()});

    ASSERT_TRUE(s.waitFor("Biblioteca al día: 4 archivos · 4 leídos · 0 quitados (")) << s.screen();
    // Once the summary has gone the counts show.
    EXPECT_TRUE(s.waitFor("4 canciones · 3 artistas", 10s)) << s.screen();

    s.keys("Down");
    ASSERT_TRUE(s.waitFor("BIBLIOTECA · BETA")) << s.screen();
    s.keys("Up Enter Down Down Enter"); // to Alfa's second track, and play it
    ASSERT_TRUE(s.waitFor("Brisa")) << s.screen();
    ASSERT_TRUE(s.waitFor("FLAC · 44.1 kHz · 16 bit")) << s.screen();
    ASSERT_TRUE(s.waitFor(" 0:01 ━")) << s.screen(); // the elapsed time moves
    EXPECT_NE(s.line(38).find("❚❚"), npos);

    s.keys("Space");
    ASSERT_TRUE(s.waitFor("     ▶     ")) << s.line(38);
    const std::string paused = s.line(39);
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(s.line(39), paused); // paused: the time stands still

    s.command(":vol 50");
    EXPECT_TRUE(s.waitFor("Vol 50%"));
    EXPECT_TRUE(s.configHas("\"volume\": 0.5"));
    s.text("s");
    EXPECT_TRUE(s.configHas("\"shuffle\": true"));
    s.text("rr");
    EXPECT_TRUE(s.waitFor("↻1"));
    EXPECT_TRUE(s.configHas("\"repeatMode\": \"one\""));

    s.text("=");
    s.keys("Up");
    ASSERT_TRUE(s.waitFor("ECUALIZADOR · Personalizado · ON")) << s.screen();
    EXPECT_TRUE(s.configHas("\"eqPreset\": \"Personalizado\""));
    s.keys("Escape");
    ASSERT_TRUE(s.waitGone("ECUALIZADOR"));

    s.quit();
    // Bracketed paste is off again: a paste arrives as plain text, no ESC [200~ around it.
    s.tmux("set-buffer zz");
    s.tmux("paste-buffer -p -t t");
    s.keys("Enter");
    EXPECT_TRUE(waitUntil([&] { return s.has("pasted"); }, 10s));
    EXPECT_EQ(trim(s.file("pasted")), " 7a 7a");

    // Again, with no folder named: the cache is shown first, the rescan reads nothing,
    // and the settings and the folder are back.
    s.start();
    ASSERT_TRUE(s.waitFor("Biblioteca al día: 4 archivos · 0 leídos · 0 quitados")) << s.screen();
    ASSERT_TRUE(s.outputHas("Biblioteca al día"));
    const std::string out = s.output();
    ASSERT_NE(out.find("Alfa"), npos);
    EXPECT_LT(out.find("Alfa"), out.find("Biblioteca al día"));
    for (const char* shown : {"Vol 50%", "EQ Personalizado", "↻1"})
        EXPECT_NE(s.screen().find(shown), npos) << shown << "\n" << s.screen();
    s.command(":paths");
    ASSERT_TRUE(s.waitFor("CARPETAS DE MÚSICA")) << s.screen();
    EXPECT_NE(s.screen().find(music.string()), npos);
    s.keys("Escape");

    // Too small a window: only the message.
    s.tmux("resize-window -t t -x 59 -y 20");
    EXPECT_TRUE(s.waitFor(kMessage, 10s)) << s.screen();
    EXPECT_EQ(s.flags(), "1 0 1 1 1");
    s.tmux("resize-window -t t -x 100 -y 40");
    ASSERT_TRUE(s.waitFor("4 canciones · 3 artistas")) << s.screen();
    EXPECT_EQ(s.screen().find("Agranda"), npos);

    // Rows of both lists start on line 4; the artists are A, Alfa, B, Beta, G, Gamma.
    s.click(5, 9);
    ASSERT_TRUE(s.waitFor("BIBLIOTECA · GAMMA")) << s.screen();
    s.click(50, 5); // a double click on Gamma's track plays it
    s.click(50, 5);
    ASSERT_TRUE(s.waitFor("Gamma · Tercero (2020)")) << s.screen();
    EXPECT_NE(s.screen().find("Duna"), npos);
    s.keys("Space");
    ASSERT_TRUE(s.waitFor("     ▶     ")) << s.line(38);
    // A click three quarters along the progress bar (columns 19 to 94 at 100 columns).
    s.click(19 + 57, 39);
    EXPECT_TRUE(s.waitFor(" 0:15 ━")) << s.line(39);

    // Quitting saves the settings this run loaded.
    fs::remove(s.home() / "config.json");
    s.keys("C-c");
    s.expectCleanExit();
    EXPECT_NE(s.config().find("\"shuffle\": true"), npos) << s.config();
    EXPECT_NE(s.config().find("\"repeatMode\": \"one\""), npos);
}
