// The real program in tmux, a real terminal emulator, with a private data folder and a
// generated music folder. There is no sound server here, so the engine plays into its
// silent real-time output.

#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace trovan;
using namespace std::chrono_literals;

namespace {

const auto npos = std::string::npos;
const std::string kMessage = "Agranda la terminal (m\xC3\xADnimo 60\xC3\x97"
                             "16)";
const std::string kBackground = "48;2;20;22;28";
const std::string kError = "38;2;247;118;142";

// Runs the program once the test says go (so its output is recorded from the first
// byte); records its pid, exit status, the terminal modes before and after, whether
// standard input was left non-blocking, then one line read from the terminal.
const char* kWrapper = R"(trap '' HUP
dir=$1; shift
echo $$ > "$dir/wrapper.pid"
stty -g > "$dir/before"
while [ ! -e "$dir/go" ]; do sleep 0.01; done
sh -c 'echo $$ > "$0/pid.tmp" && mv "$0/pid.tmp" "$0/pid" && exec "$@"' "$dir" "$@"
echo $? > "$dir/status.tmp"; mv "$dir/status.tmp" "$dir/status"
stty -g > "$dir/after" 2>/dev/null
python3 -c 'import fcntl,os;print(fcntl.fcntl(0,fcntl.F_GETFL)&os.O_NONBLOCK)' > "$dir/nonblock" 2>/dev/null
echo > "$dir/done"
IFS= read -r line && printf '%s' "$line" | od -An -tx1 > "$dir/pasted.tmp"
mv "$dir/pasted.tmp" "$dir/pasted"
exec sleep 600
)";

std::string shellQuote(const std::string& s) {
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string slurp(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::string trim(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' '))
        s.pop_back();
    return s;
}

bool waitUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit = 20s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (; std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(20ms))
        if (ready()) return true;
    return ready();
}

// The program in one window of a private tmux server; each start gets a new server and
// a new folder for what the wrapper records, and keeps the data folder.
class Session {
public:
    Session() {
        char tmpl[] = "/tmp/trovan-e2e-XXXXXX";
        dir_ = mkdtemp(tmpl);
        fs::create_directories(home());
    }
    ~Session() {
        stop();
        fs::remove_all(dir_);
    }

    const fs::path& dir() const { return dir_; }
    fs::path home() const { return dir_ / "home"; }
    int pid() const { return pid_; }

    void start(const std::vector<std::string>& args = {}, int width = 100, int height = 40) {
        stop();
        run_ = dir_ / ("run" + std::to_string(++runs_));
        fs::create_directories(run_);
        std::ofstream(run_ / "run.sh") << kWrapper;
        std::string command = "sh " + shellQuote((run_ / "run.sh").string()) + " " +
                              shellQuote(run_.string()) + " " + shellQuote(TROVAN_BINARY);
        for (const auto& a : args)
            command += " " + shellQuote(a);
        tmux("-f /dev/null new-session -d -s t -x " + std::to_string(width) + " -y " +
             std::to_string(height) + " -e COLORTERM=truecolor -e TROVAN_HOME=" +
             shellQuote(home().string()) + " " + shellQuote(command));
        tmux("pipe-pane -t t -o " + shellQuote("cat >> " + shellQuote((run_ / "out").string())));
        std::ofstream(run_ / "go") << "";
        waitUntil([&] { return has("pid"); }, 10s);
        pid_ = std::atoi(file("pid").c_str());
    }

    std::string tmux(const std::string& args) {
        std::string out;
        if (FILE* p = popen(
                ("tmux -S " + shellQuote((run_ / "sock").string()) + " " + args).c_str(), "r")) {
            char buf[4096];
            for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;)
                out.append(buf, n);
            pclose(p);
        }
        return out;
    }
    std::string file(const std::string& name) { return slurp(run_ / name); }
    bool has(const std::string& name) { return fs::exists(run_ / name); }
    // Everything the program has written in this run.
    std::string output() { return file("out"); }
    std::string config() { return slurp(home() / "config.json"); }

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
    bool waitFor(const std::string& text, std::chrono::milliseconds limit = 20s) {
        return waitUntil([&] { return screen().find(text) != npos; }, limit);
    }
    bool waitGone(const std::string& text, std::chrono::milliseconds limit = 20s) {
        return waitUntil([&] { return screen().find(text) == npos; }, limit);
    }
    bool configHas(const std::string& text) {
        return waitUntil([&] { return config().find(text) != npos; }, 5s);
    }

    void keys(const std::string& names) { tmux("send-keys -t t " + names); }
    void command(const std::string& line) {
        text(line);
        keys("Enter");
    }
    void text(const std::string& literal) { tmux("send-keys -t t -l " + shellQuote(literal)); }
    // A left click as the terminal reports it (SGR, 1-based cells), press and release.
    void click(int x, int y) {
        std::string hex;
        for (char end : {'M', 'm'}) {
            for (unsigned char c :
                 "\x1b[<0;" + std::to_string(x + 1) + ";" + std::to_string(y + 1) + end) {
                char b[4];
                std::snprintf(b, sizeof b, " %02x", c);
                hex += b;
            }
        }
        tmux("send-keys -t t -H" + hex);
    }

    // Alternate screen, cursor shown, mouse button, SGR and any-motion reporting.
    std::string flags() {
        return trim(tmux("display -p -t t '#{alternate_on} #{cursor_flag} #{mouse_button_flag} "
                         "#{mouse_sgr_flag} #{mouse_any_flag}'"));
    }
    bool waitForSession() {
        return waitUntil(
            [&] { return flags() == "1 0 1 1 1" && screen(true).find(kBackground) != npos; }, 10s);
    }

    // User plus system CPU ticks (fields 14 and 15 of /proc/<pid>/stat).
    long cpuTicks() {
        std::stringstream ss(slurp("/proc/" + std::to_string(pid_) + "/stat"));
        std::string skip;
        std::getline(ss, skip, ')');
        for (int i = 0; i < 11; ++i)
            ss >> skip;
        long user = -1, system = -1;
        ss >> user >> system;
        return user + system;
    }

    // Waits for the program to end and checks it left the terminal as it found it.
    void expectCleanExit() {
        ASSERT_TRUE(waitUntil([&] { return has("done"); }, 10s)) << "program did not end";
        EXPECT_EQ(trim(file("status")), "0");
        EXPECT_FALSE(file("before").empty());
        EXPECT_EQ(file("after"), file("before")) << "terminal modes not restored";
        EXPECT_EQ(trim(file("nonblock")), "0") << "standard input left non-blocking";
        EXPECT_EQ(flags(), "0 1 0 0 0");
    }

private:
    void stop() {
        if (run_.empty()) return;
        if (pid_ > 0 && !has("status")) kill(pid_, SIGKILL);
        if (int wrapper = std::atoi(file("wrapper.pid").c_str()); wrapper > 0)
            kill(wrapper, SIGKILL);
        tmux("kill-server 2>/dev/null");
    }

    fs::path dir_, run_;
    int runs_ = 0;
    int pid_ = 0;
};

bool haveTmux() {
    return std::system("command -v tmux >/dev/null 2>&1") == 0;
}

// Four 20-second tracks by three artists, two of them in one album.
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

} // namespace

#define REQUIRE_TOOLS()                                                                            \
    if (!haveTmux() || !fixtures::available()) GTEST_SKIP() << "tmux or ffmpeg missing"

TEST(Tmux, QuitsOnSignalsAndWhenTheTerminalGoesAway) {
    if (!haveTmux()) GTEST_SKIP() << "tmux is not installed";
    Session s;
    for (int sig : {SIGTERM, SIGINT, SIGHUP, 0}) {
        SCOPED_TRACE(sig);
        s.start();
        ASSERT_TRUE(s.waitForSession()) << s.flags();
        if (sig != 0) {
            kill(s.pid(), sig);
            s.expectCleanExit();
            continue;
        }
        s.tmux("kill-session -t t"); // the terminal goes away
        EXPECT_TRUE(waitUntil([&] { return s.has("status"); }, 2s)) << "still running";
        EXPECT_EQ(trim(s.file("status")), "0");
    }
}

TEST(Tmux, PlaysSavesTheSettingsAndASecondStartFindsThem) {
    REQUIRE_TOOLS();
    Session s;
    const fs::path music = makeMusic(s.dir());
    s.start({music.string()});

    ASSERT_TRUE(s.waitFor("Biblioteca al día: 4 archivos · 4 leídos · 0 quitados (")) << s.screen();
    EXPECT_NE(s.output().find("Buscando archivos…"), npos);
    // The artist pane: letter headings and artists.
    EXPECT_EQ(s.line(4).substr(0, 3), "  A");
    EXPECT_NE(s.line(5).find(" Alfa"), npos);
    EXPECT_EQ(s.line(6).substr(0, 3), "  B");
    EXPECT_NE(s.line(7).find(" Beta"), npos);
    EXPECT_NE(s.screen().find("BIBLIOTECA · ALFA"), npos);
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
    const std::pair<const char*, const char*> seeks[] = {
        {"5", " 0:10 ━"}, {".", " 0:15 ━"}, {",", " 0:10 ━"}};
    for (auto [key, time] : seeks) {
        s.text(key);
        EXPECT_TRUE(s.waitFor(time)) << key << s.line(39);
    }

    s.text("+");
    EXPECT_TRUE(s.waitFor("Vol 85%"));
    EXPECT_TRUE(s.configHas("\"volume\": 0.85"));
    s.text("-");
    EXPECT_TRUE(s.waitFor("Vol 80%"));
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

    s.text("q");
    s.expectCleanExit();
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
    const std::string out = s.output();
    ASSERT_NE(out.find("Alfa"), npos);
    EXPECT_LT(out.find("Alfa"), out.find("Biblioteca al día"));
    for (const char* shown : {"Vol 50%", "EQ Personalizado", "↻1"})
        EXPECT_NE(s.screen().find(shown), npos) << shown << "\n" << s.screen();
    s.command(":paths");
    ASSERT_TRUE(s.waitFor("CARPETAS DE MÚSICA")) << s.screen();
    EXPECT_NE(s.screen().find(music.string()), npos);
    s.keys("Escape");

    // A touched file is read again, and only that one.
    const auto touched = music / "beta-1.flac";
    fs::last_write_time(touched, fs::last_write_time(touched) + 10s);
    s.command(":reindex");
    ASSERT_TRUE(s.waitFor("Biblioteca al día: 4 archivos · 1 leídos · 0 quitados")) << s.screen();

    // A marked file disappears: it leaves the library and the marks.
    s.keys("Enter Down Down");
    s.text("x");
    ASSERT_TRUE(s.waitFor("BIBLIOTECA · ALFA · 1 marcadas")) << s.screen();
    fs::remove(music / "alfa-2.flac");
    s.command(":reindex");
    ASSERT_TRUE(s.waitFor("Biblioteca al día: 3 archivos · 0 leídos · 1 quitados")) << s.screen();
    EXPECT_EQ(s.screen().find("marcadas"), npos) << s.screen();
    EXPECT_EQ(s.screen().find("Brisa"), npos) << s.screen();

    // Quitting saves the settings this run loaded.
    fs::remove(s.home() / "config.json");
    s.text("q");
    s.expectCleanExit();
    EXPECT_NE(s.config().find("\"shuffle\": true"), npos) << s.config();
    EXPECT_NE(s.config().find("\"repeatMode\": \"one\""), npos);
}

TEST(Tmux, SmallWindowPromptsOverlaysIdleMouseAndResize) {
    REQUIRE_TOOLS();
    Session s;
    const fs::path music = makeMusic(s.dir());
    s.start({music.string()}, 59, 20);
    // Only the message, on row height / 2 from column (width - 34) / 2.
    EXPECT_TRUE(
        waitUntil([&] { return s.line(10).rfind(std::string(12, ' ') + kMessage, 0) == 0; }, 10s))
        << s.screen();
    EXPECT_EQ(s.flags(), "1 0 1 1 1");
    s.tmux("resize-window -t t -x 100 -y 40");
    ASSERT_TRUE(s.waitFor("4 canciones · 3 artistas")) << s.screen();
    EXPECT_EQ(s.screen().find("Agranda"), npos);

    // Search moves to the matching artist; Esc goes back.
    s.text("/ga");
    ASSERT_TRUE(s.waitFor("BIBLIOTECA · GAMMA")) << s.screen();
    s.keys("Escape");
    ASSERT_TRUE(s.waitFor("BIBLIOTECA · ALFA")) << s.screen();

    // An unknown command: an error in the error colour that goes away by itself.
    s.command(":foo");
    ASSERT_TRUE(s.waitFor("Comando desconocido: foo (usa :help)")) << s.screen();
    const auto shown = std::chrono::steady_clock::now();
    EXPECT_NE(s.screen(true).find(kError + "m" + "Comando desconocido"), npos);
    EXPECT_TRUE(s.waitGone("Comando desconocido", 10s));
    const auto gone = std::chrono::steady_clock::now() - shown;
    EXPECT_GT(gone, 3s);
    EXPECT_LT(gone, 8s); // generous: the machine may be busy

    // Idle, nothing playing and nothing pending: no wake-ups, so no CPU time at all.
    const long before = s.cpuTicks();
    std::this_thread::sleep_for(3s);
    EXPECT_EQ(s.cpuTicks(), before) << "the idle program used CPU time";

    s.text("?");
    ASSERT_TRUE(s.waitFor("AYUDA")) << s.screen();
    EXPECT_NE(s.screen().find("Play / pausa"), npos);
    s.text("x");
    ASSERT_TRUE(s.waitGone("AYUDA"));

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

    // A smaller window: everything is laid out again and the cursor stays.
    s.tmux("resize-window -t t -x 80 -y 30");
    ASSERT_TRUE(waitUntil([&] { return s.line(29).find("0:15 ━") != npos; })) << s.screen();
    EXPECT_NE(s.screen().find("BIBLIOTECA · GAMMA"), npos) << s.screen();
    std::string rule = "  ";
    for (int i = 0; i < 76; ++i)
        rule += "─";
    EXPECT_EQ(s.line(1), rule) << s.screen();

    s.keys("C-c");
    s.expectCleanExit();
}
