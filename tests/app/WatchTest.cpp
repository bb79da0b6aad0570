// SPDX-License-Identifier: GPL-3.0-or-later
// The library follows the disk while the program runs: real files copied, deleted,
// renamed and rewritten under a music folder, seen by the real program in tmux without a
// key. Each incremental update writes one line to the file TROVAN_WATCH_LOG names.

#include "app/TmuxSession.h"

#include <fcntl.h>
#include <unistd.h>

using namespace trovan;
using namespace trovan::e2e;

namespace {

#define REQUIRE_TOOLS()                                                                            \
    if (!haveTmux() || !fixtures::available()) GTEST_SKIP() << "tmux or ffmpeg missing"

std::vector<std::string> lines(const fs::path& file) {
    std::vector<std::string> out;
    std::stringstream ss(slurp(file));
    for (std::string l; std::getline(ss, l);)
        out.push_back(l);
    return out;
}

fs::path song(const std::string& name, const std::string& artist, const std::string& album,
              const std::string& title, double seconds = 2) {
    fixtures::Tone t;
    t.seconds = seconds;
    t.tags = {{"ARTIST", {artist}}, {"ALBUM", {album}}, {"TITLE", {title}}};
    return fixtures::cached("watch-" + name + ".flac", t);
}

} // namespace

TEST(Watch, FollowsCopiesDeletionsRenamesRewritesAndLostEvents) {
    REQUIRE_TOOLS();
    Session s;
    const fs::path music = makeMusic(s.dir());
    const fs::path log = s.dir() / "updates.log";
    const fs::path staging = s.dir() / "staging";
    fs::create_directories(staging / "Cuarto");
    fixtures::copyTo(song("delta-1", "Delta", "Cuarto", "Eco", 20), staging / "Cuarto", "1.flac");
    fixtures::copyTo(song("delta-2", "Delta", "Cuarto", "Faro", 20), staging / "Cuarto", "2.flac");
    s.environment = {{"TROVAN_WATCH_LOG", log.string()}};
    s.start({music.string()}, 120, 40);
    ASSERT_TRUE(s.waitFor("Biblioteca al día: 4 archivos")) << s.screen();
    ASSERT_TRUE(s.waitFor("4 canciones · 3 artistas", 10s)) << s.screen();

    // An album folder copied in: its artist shows up by itself.
    fs::copy(staging / "Cuarto", music / "Cuarto", fs::copy_options::recursive);
    ASSERT_TRUE(s.waitFor("Delta")) << s.screen();
    ASSERT_TRUE(waitUntil([&] { return lines(log).size() == 1; }));
    EXPECT_EQ(lines(log)[0], "archivos=2 leidos=2 movidos=0 quitados=0");

    // The playing track is deleted: it leaves the library and plays on.
    s.keys("Down");
    ASSERT_TRUE(s.waitFor("BIBLIOTECA · BETA")) << s.screen();
    s.keys("Enter Down Enter");
    ASSERT_TRUE(s.waitFor("❚❚")) << s.screen();
    ASSERT_TRUE(s.waitFor("Cometa")) << s.screen();
    fs::remove(music / "beta-1.flac");
    ASSERT_TRUE(waitUntil([&] { return lines(log).size() == 2; }));
    EXPECT_EQ(lines(log)[1], "archivos=3 leidos=0 movidos=0 quitados=1");
    ASSERT_TRUE(s.waitFor("5 canciones · 3 artistas")) << s.screen();
    EXPECT_EQ(s.screen().find("\n  B   "), npos) << s.screen(); // no artist under B
    EXPECT_NE(s.screen().find("❚❚"), npos) << s.screen();
    EXPECT_NE(s.screen().find("Cometa"), npos) << s.screen();
    s.keys("Space");

    // A renamed folder: its tracks move over with their tags, nothing is read, and the
    // album playing from it goes on from the new place.
    s.text("/del");
    ASSERT_TRUE(s.waitFor("BIBLIOTECA · DELTA")) << s.screen();
    s.keys("Enter");
    s.keys("Enter Down Enter");
    ASSERT_TRUE(s.waitFor("Delta · Cuarto")) << s.screen();
    fs::rename(music / "Cuarto", music / "Quinto");
    ASSERT_TRUE(waitUntil([&] { return lines(log).size() == 3; }));
    EXPECT_EQ(lines(log)[2], "archivos=2 leidos=0 movidos=2 quitados=0");
    EXPECT_TRUE(s.waitFor("Faro")) << s.screen();
    s.text("n");
    EXPECT_TRUE(waitUntil([&] { return occurrences(s.screen(), "Faro") == 2; })) << s.screen();
    EXPECT_EQ(s.screen().find("No se pudo"), npos) << s.screen();
    s.keys("Space");

    // A file overwritten with other tags: the new ones show.
    fs::copy_file(song("epsilon", "Epsilon", "Sexto", "Gota"), music / "gamma-1.flac",
                  fs::copy_options::overwrite_existing);
    ASSERT_TRUE(s.waitFor("Epsilon")) << s.screen();
    ASSERT_TRUE(waitUntil([&] { return lines(log).size() == 4; }));
    EXPECT_EQ(lines(log)[3], "archivos=3 leidos=1 movidos=0 quitados=0");
    EXPECT_TRUE(s.waitGone("Gamma")) << s.screen();

    // More events than the kernel keeps while the program is stopped: they are lost, and
    // one rescan takes their place.
    ASSERT_TRUE(s.waitFor("5 canciones", 10s)) << s.screen();
    const int summaries = occurrences(s.output(), "Biblioteca al día");
    kill(s.pid(), SIGSTOP);
    for (int i = 0; i < 12000; ++i) // a creation and a close each
        ::close(::open((music / (".h" + std::to_string(i))).c_str(), O_CREAT | O_WRONLY, 0644));
    fs::remove(music / "alfa-1.flac");
    kill(s.pid(), SIGCONT);
    ASSERT_TRUE(s.waitFor("Biblioteca al día: 4 archivos · 0 leídos · 1 quitado")) << s.screen();
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(occurrences(s.output(), "Biblioteca al día"), summaries + 1);
    EXPECT_EQ(lines(log).size(), 4u) << slurp(log);

    // Following can be turned off and on, and the choice is kept.
    s.command(":watch off");
    EXPECT_TRUE(s.waitFor("Vigilancia desactivada")) << s.screen();
    EXPECT_TRUE(s.configHas("\"watch\": false"));
    s.command(":watch on");
    EXPECT_TRUE(s.configHas("\"watch\": true"));
    s.quit();
}
