// The whole program in a real terminal (tmux, 100 × 40) on a generated music folder
// with a private data folder: scanning, browsing, playing, prompts, overlays, the
// mouse, resizing, quitting, and what a second start finds. There is no sound server
// here, so the engine plays into its silent real-time output.

#include "TmuxHelpers.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using namespace trovan;
using namespace trovan::testing;

namespace {

// Four short tracks by three artists, two of them in one album.
fs::path makeMusic(const fs::path& dir) {
    const fs::path music = dir / "music";
    fs::create_directories(music);
    struct Song {
        const char *file, *artist, *album, *title;
        int number;
        double hz;
    };
    for (const Song& s : {Song{"alfa-1.flac", "Alfa", "Primero", "Amanecer", 1, 330},
                          Song{"alfa-2.flac", "Alfa", "Primero", "Brisa", 2, 392},
                          Song{"beta-1.flac", "Beta", "Segundo", "Cometa", 1, 262},
                          Song{"gamma-1.flac", "Gamma", "Tercero", "Duna", 1, 294}}) {
        fixtures::Tone t;
        t.seconds = 20;
        t.frequency = s.hz;
        t.tags = {{"ARTIST", {s.artist}},
                  {"ALBUM", {s.album}},
                  {"TITLE", {s.title}},
                  {"TRACKNUMBER", {std::to_string(s.number)}},
                  {"DATE", {"2020"}}};
        fixtures::copyTo(fixtures::cached(std::string("e2e-") + s.file, t), music, s.file);
    }
    return music;
}

// One tmux server with one 100 × 40 window running the program. The program waits
// for a go-ahead so that everything it writes is recorded from the first byte.
class Player {
public:
    Player() {
        char tmpl[] = "/tmp/trovan-player-XXXXXX";
        dir_ = mkdtemp(tmpl);
        home_ = dir_ / "home";
    }
    ~Player() {
        tmux("kill-server 2>/dev/null");
        fs::remove_all(dir_);
    }

    const fs::path& dir() const { return dir_; }
    const fs::path& home() const { return home_; }

    void start(const std::vector<std::string>& args) {
        // Each run gets its own server: a server being killed may still hold its socket.
        tmux("kill-server 2>/dev/null");
        ++run_;
        std::string command = "while [ ! -e " + shellQuote((dir_ / "go").string()) +
                              " ]; do sleep 0.01; done; exec " + shellQuote(TROVAN_BINARY);
        for (const auto& a : args)
            command += " " + shellQuote(a);
        fs::remove(dir_ / "go");
        fs::remove(dir_ / "out.log");
        tmux(
            "-f /dev/null new-session -d -s t -x 100 -y 40 -e COLORTERM=truecolor -e TROVAN_HOME=" +
            shellQuote(home_.string()) + " " + shellQuote(command));
        tmux("set-option -t t remain-on-exit on");
        tmux("pipe-pane -t t -o " +
             shellQuote("cat >> " + shellQuote((dir_ / "out.log").string())));
        std::ofstream(dir_ / "go") << "";
    }

    std::string tmux(const std::string& args) {
        return tmuxAt((dir_ / ("sock" + std::to_string(run_))).string(), args);
    }

    std::string screen(bool escapes = false) {
        return tmux(std::string("capture-pane -p ") + (escapes ? "-e " : "") + "-t t");
    }
    std::string line(int y) {
        std::stringstream ss(screen());
        std::string l;
        for (int i = 0; i <= y && std::getline(ss, l);)
            ++i;
        return l;
    }
    // Everything the program has written so far.
    std::string output() { return slurp(dir_ / "out.log"); }

    bool waitFor(const std::string& text, std::chrono::milliseconds limit = 20s) {
        return waitUntil([&] { return screen().find(text) != std::string::npos; }, limit);
    }
    bool waitGone(const std::string& text, std::chrono::milliseconds limit = 20s) {
        return waitUntil([&] { return screen().find(text) == std::string::npos; }, limit);
    }

    void keys(const std::string& names) { tmux("send-keys -t t " + names); }
    void text(const std::string& literal) { tmux("send-keys -t t -l " + shellQuote(literal)); }
    // A mouse report as the terminal sends it (1-based cells).
    void mouse(int button, int x, int y, bool press = true) {
        const std::string report = "\x1b[<" + std::to_string(button) + ";" + std::to_string(x + 1) +
                                   ";" + std::to_string(y + 1) + (press ? "M" : "m");
        std::string hex;
        char b[4];
        for (unsigned char c : report)
            hex += (std::snprintf(b, sizeof b, " %02x", c), b);
        tmux("send-keys -t t -H" + hex);
    }
    void click(int x, int y) {
        mouse(0, x, y, true);
        mouse(0, x, y, false);
    }

    // The exit status once the program has ended, or -1.
    int exitStatus() {
        if (!waitUntil(
                [&] { return tmux("display-message -p -t t '#{pane_dead}'").rfind("1", 0) == 0; }))
            return -1;
        return std::atoi(tmux("display-message -p -t t '#{pane_dead_status}'").c_str());
    }

    std::string config() { return slurp(home_ / "config.json"); }
    bool configHas(const std::string& text) {
        return waitUntil([&] { return config().find(text) != std::string::npos; }, 5s);
    }

private:
    fs::path dir_;
    fs::path home_;
    int run_ = 0;
};

bool haveTools() {
    return haveTmux() && fixtures::available();
}

const std::string kError = "38;2;247;118;142";

} // namespace

TEST(Player, ScanBrowsePlaySeekVolumeAndQuit) {
    if (!haveTools()) GTEST_SKIP() << "tmux or ffmpeg missing";
    Player p;
    const fs::path music = makeMusic(p.dir());
    p.start({music.string()});

    ASSERT_TRUE(p.waitFor("Biblioteca al día: 4 archivos · 4 leídos · 0 quitados (")) << p.screen();
    EXPECT_NE(p.output().find("Buscando archivos…"), std::string::npos);
    // The artist pane: letter headings and artists.
    EXPECT_EQ(p.line(4).substr(0, 3), "  A");
    EXPECT_NE(p.line(5).find(" Alfa"), std::string::npos);
    EXPECT_EQ(p.line(6).substr(0, 3), "  B");
    EXPECT_NE(p.line(7).find(" Beta"), std::string::npos);
    EXPECT_NE(p.screen().find("BIBLIOTECA · ALFA"), std::string::npos);
    // Once the summary has gone the counts show.
    EXPECT_TRUE(p.waitFor("4 canciones · 3 artistas", 10s)) << p.screen();

    p.keys("Down");
    ASSERT_TRUE(p.waitFor("BIBLIOTECA · BETA")) << p.screen();
    p.keys("Up Enter Down Down Enter"); // to Alfa's second track, and play it
    ASSERT_TRUE(p.waitFor("Brisa")) << p.screen();
    ASSERT_TRUE(p.waitFor("FLAC · 44.1 kHz · 16 bit")) << p.screen();
    ASSERT_TRUE(p.waitFor(" 0:01 ━")) << p.screen(); // the elapsed time moves
    EXPECT_NE(p.line(38).find("❚❚"), std::string::npos);

    p.keys("Space");
    ASSERT_TRUE(p.waitFor("     ▶     ")) << p.line(38);
    const std::string paused = p.line(39);
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(p.line(39), paused); // paused: the time stands still

    p.text("5");
    EXPECT_TRUE(p.waitFor(" 0:10 ━")) << p.line(39);
    p.text(".");
    EXPECT_TRUE(p.waitFor(" 0:15 ━")) << p.line(39);
    p.text(",");
    EXPECT_TRUE(p.waitFor(" 0:10 ━")) << p.line(39);

    p.text("+");
    EXPECT_TRUE(p.waitFor("Vol 85%"));
    EXPECT_TRUE(p.configHas("\"volume\": 0.85"));
    p.text("-");
    EXPECT_TRUE(p.waitFor("Vol 80%"));
    p.text(":vol 50");
    p.keys("Enter");
    EXPECT_TRUE(p.waitFor("Vol 50%"));
    EXPECT_TRUE(p.configHas("\"volume\": 0.5"));

    p.text("s");
    EXPECT_TRUE(p.configHas("\"shuffle\": true"));
    p.text("rr");
    EXPECT_TRUE(p.waitFor("↻1"));
    EXPECT_TRUE(p.configHas("\"repeatMode\": \"one\""));

    p.text("q");
    EXPECT_EQ(p.exitStatus(), 0);
}

TEST(Player, PromptsOverlaysMouseAndResize) {
    if (!haveTools()) GTEST_SKIP() << "tmux or ffmpeg missing";
    Player p;
    const fs::path music = makeMusic(p.dir());
    p.start({music.string()});
    ASSERT_TRUE(p.waitFor("Biblioteca al día")) << p.screen();

    // Search moves to the matching artist; Esc goes back.
    p.text("/ga");
    ASSERT_TRUE(p.waitFor("BIBLIOTECA · GAMMA")) << p.screen();
    p.keys("Escape");
    ASSERT_TRUE(p.waitFor("BIBLIOTECA · ALFA")) << p.screen();

    // An unknown command: an error in the error colour that goes away by itself.
    p.text(":foo");
    p.keys("Enter");
    ASSERT_TRUE(p.waitFor("Comando desconocido: foo (usa :help)")) << p.screen();
    const auto shown = std::chrono::steady_clock::now();
    EXPECT_NE(p.screen(true).find(kError + "m" + "Comando desconocido"), std::string::npos);
    EXPECT_TRUE(p.waitGone("Comando desconocido", 10s));
    const auto gone = std::chrono::steady_clock::now() - shown;
    EXPECT_GT(gone, 3s);
    EXPECT_LT(gone, 8s); // generous: the machine may be busy

    p.text("?");
    ASSERT_TRUE(p.waitFor("AYUDA")) << p.screen();
    EXPECT_NE(p.screen().find("Play / pausa"), std::string::npos);
    p.text("x");
    ASSERT_TRUE(p.waitGone("AYUDA"));

    p.text("=");
    ASSERT_TRUE(p.waitFor("ECUALIZADOR · Plano · ON")) << p.screen();
    p.keys("Up");
    ASSERT_TRUE(p.waitFor("ECUALIZADOR · Personalizado · ON")) << p.screen();
    EXPECT_TRUE(p.configHas("\"eqPreset\": \"Personalizado\""));
    p.keys("Escape");
    ASSERT_TRUE(p.waitGone("ECUALIZADOR"));
    EXPECT_NE(p.screen().find("EQ Personalizado"), std::string::npos);

    p.text(":paths");
    p.keys("Enter");
    ASSERT_TRUE(p.waitFor("CARPETAS DE MÚSICA")) << p.screen();
    EXPECT_NE(p.screen().find(music.string()), std::string::npos);
    p.keys("Escape");
    ASSERT_TRUE(p.waitGone("CARPETAS DE MÚSICA"));

    // Rows of the artist list start on line 4: A, Alfa, B, Beta, G, Gamma.
    p.click(5, 9);
    ASSERT_TRUE(p.waitFor("BIBLIOTECA · GAMMA")) << p.screen();
    // A double click on Gamma's track plays it. Library rows start on line 4 too.
    p.click(50, 5);
    p.click(50, 5);
    ASSERT_TRUE(p.waitFor("Duna")) << p.screen();
    ASSERT_TRUE(p.waitFor("Gamma · Tercero (2020)")) << p.screen();
    p.keys("Space");
    ASSERT_TRUE(p.waitFor("     ▶     ")) << p.line(38);
    // A click three quarters along the progress bar (columns 19 to 94 at 100 columns).
    p.click(19 + 57, 39);
    EXPECT_TRUE(p.waitFor(" 0:15 ━")) << p.line(39);

    // A smaller window: everything is laid out again and the cursor stays.
    p.tmux("resize-window -t t -x 80 -y 30");
    ASSERT_TRUE(waitUntil([&] { return p.line(29).find("0:15 ━") != std::string::npos; }))
        << p.screen();
    EXPECT_NE(p.screen().find("BIBLIOTECA · GAMMA"), std::string::npos) << p.screen();
    std::string rule = "  ";
    for (int i = 0; i < 76; ++i)
        rule += "─";
    EXPECT_EQ(p.line(1), rule) << p.screen();

    p.keys("C-c");
    EXPECT_EQ(p.exitStatus(), 0);
}

TEST(Player, ASecondStartFindsTheLibraryAndTheSettings) {
    if (!haveTools()) GTEST_SKIP() << "tmux or ffmpeg missing";
    Player p;
    const fs::path music = makeMusic(p.dir());
    p.start({music.string()});
    ASSERT_TRUE(p.waitFor("Biblioteca al día: 4 archivos · 4 leídos")) << p.screen();
    // Change settings (and mark a track, which is not one), leave.
    p.keys("Enter Down Down");
    p.text("x+sr=");
    p.keys("Up Escape");
    ASSERT_TRUE(p.waitFor("BIBLIOTECA · ALFA · 1 marcadas")) << p.screen();
    ASSERT_TRUE(p.waitFor("EQ Personalizado")) << p.screen();
    p.text("q");
    ASSERT_EQ(p.exitStatus(), 0);

    // Again, with no folder named: the cache is shown first, the rescan reads nothing.
    p.start({});
    ASSERT_TRUE(p.waitFor("Biblioteca al día: 4 archivos · 0 leídos · 0 quitados")) << p.screen();
    const std::string out = p.output();
    ASSERT_NE(out.find("Alfa"), std::string::npos);
    EXPECT_LT(out.find("Alfa"), out.find("Biblioteca al día"));
    const std::string s = p.screen();
    EXPECT_NE(s.find("Vol 85%"), std::string::npos) << s;
    EXPECT_NE(s.find("EQ Personalizado"), std::string::npos) << s;
    EXPECT_NE(s.find("↻"), std::string::npos) << s;
    EXPECT_NE(p.config().find("\"shuffle\": true"), std::string::npos);
    EXPECT_NE(p.config().find("\"repeatMode\": \"all\""), std::string::npos);
    p.text(":paths");
    p.keys("Enter");
    ASSERT_TRUE(p.waitFor(music.string())) << p.screen();
    p.keys("Escape");

    // A touched file is read again, and only that one.
    const auto touched = music / "beta-1.flac";
    fs::last_write_time(touched, fs::last_write_time(touched) + 10s);
    p.text(":reindex");
    p.keys("Enter");
    ASSERT_TRUE(p.waitFor("Biblioteca al día: 4 archivos · 1 leídos · 0 quitados")) << p.screen();

    // A marked file disappears: it leaves the library and the marks.
    p.keys("Enter Down Down");
    p.text("x");
    ASSERT_TRUE(p.waitFor("BIBLIOTECA · ALFA · 1 marcadas")) << p.screen();
    fs::remove(music / "alfa-2.flac");
    p.text(":reindex");
    p.keys("Enter");
    ASSERT_TRUE(p.waitFor("Biblioteca al día: 3 archivos · 0 leídos · 1 quitados")) << p.screen();
    EXPECT_EQ(p.screen().find("marcadas"), std::string::npos) << p.screen();
    EXPECT_EQ(p.screen().find("Brisa"), std::string::npos) << p.screen();
    p.text("q");
    EXPECT_EQ(p.exitStatus(), 0);
}
