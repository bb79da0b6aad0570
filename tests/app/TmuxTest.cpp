// Drives the real program inside tmux, a real terminal emulator: what the screen shows,
// resizing, and every way out, each time checking that the terminal is given back as
// it was found.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::chrono_literals;

const std::string kMessage = "Agranda la terminal (m\xC3\xADnimo 60\xC3\x97"
                             "16)";
const std::string kBackground = "48;2;20;22;28";

// Runs the program under a small shell wrapper that records the terminal modes before
// and after, the exit status, and then reads one line from the terminal.
const char* kWrapper = R"(trap '' HUP
dir=$1; bin=$2
echo $$ > "$dir/wrapper.pid"
stty -g > "$dir/before"
sh -c 'echo $$ > "$1/pid.tmp" && mv "$1/pid.tmp" "$1/pid" && exec "$2"' sh "$dir" "$bin"
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

std::string slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::string trim(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' '))
        s.pop_back();
    return s;
}

// Waits up to `limit` for `ready`; true if it became true.
bool waitUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit = 10s) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (ready()) return true;
        std::this_thread::sleep_for(25ms);
    }
    return ready();
}

bool haveTmux() {
    return std::system("command -v tmux >/dev/null 2>&1") == 0;
}

// A private tmux server (its own socket) with one session running the program.
class Session {
public:
    Session(int width, int height) {
        char tmpl[] = "/tmp/trovan-e2e-XXXXXX";
        dir_ = mkdtemp(tmpl);
        std::ofstream(dir_ + "/run.sh") << kWrapper;
        mkdir((dir_ + "/home").c_str(), 0700);
        tmux("-f /dev/null new-session -d -s t -x " + std::to_string(width) + " -y " +
             std::to_string(height) +
             " -e COLORTERM=truecolor -e TROVAN_HOME=" + shellQuote(dir_ + "/home") + " " +
             shellQuote("sh " + shellQuote(dir_ + "/run.sh") + " " + shellQuote(dir_) + " " +
                        shellQuote(TROVAN_BINARY)));
        waitUntil([&] { return exists(dir_ + "/pid"); });
        pid_ = std::atoi(slurp(dir_ + "/pid").c_str());
    }

    ~Session() {
        for (const char* f : {"/wrapper.pid", "/pid"}) {
            int pid = std::atoi(slurp(dir_ + f).c_str());
            if (pid > 0) kill(pid, SIGKILL);
        }
        tmux("kill-server 2>/dev/null");
        std::system(("rm -rf " + shellQuote(dir_)).c_str());
    }

    std::string tmux(const std::string& args) {
        std::string cmd = "tmux -S " + shellQuote(dir_ + "/sock") + " " + args;
        std::string out;
        if (FILE* p = popen(cmd.c_str(), "r")) {
            char buf[4096];
            std::size_t n;
            while ((n = fread(buf, 1, sizeof buf, p)) > 0)
                out.append(buf, n);
            pclose(p);
        }
        return out;
    }

    std::vector<std::string> screen(bool escapes = false) {
        std::stringstream ss(
            tmux(std::string("capture-pane -p ") + (escapes ? "-e " : "") + "-t t"));
        std::vector<std::string> lines;
        for (std::string line; std::getline(ss, line);)
            lines.push_back(line);
        return lines;
    }

    std::string flags() {
        return trim(tmux("display -p -t t '#{alternate_on} #{cursor_flag} #{mouse_button_flag} "
                         "#{mouse_sgr_flag} #{mouse_any_flag}'"));
    }

    // The full-screen session is up and the first frame is on screen.
    bool waitForSession(const std::function<bool(const std::vector<std::string>&)>& frameReady) {
        return waitUntil([&] { return flags() == "1 0 1 1 1" && frameReady(screen(true)); });
    }

    bool alive() {
        std::string stat = slurp("/proc/" + std::to_string(pid_) + "/stat");
        if (stat.empty()) return false;
        auto close = stat.rfind(')');
        return close != std::string::npos && stat.substr(close + 2, 1) != "Z";
    }

    // User plus system CPU time in clock ticks.
    long cpuTicks() {
        std::string stat = slurp("/proc/" + std::to_string(pid_) + "/stat");
        std::stringstream ss(stat.substr(stat.rfind(')') + 2));
        std::string field;
        long utime = 0, stime = 0;
        for (int i = 3; i <= 15 && ss >> field; ++i) {
            if (i == 14) utime = std::stol(field);
            if (i == 15) stime = std::stol(field);
        }
        return utime + stime;
    }

    // Waits for the program to end and checks it left the terminal as it found it.
    void expectCleanExit() {
        ASSERT_TRUE(waitUntil([&] { return exists(dir_ + "/done"); })) << "program did not end";
        EXPECT_EQ(trim(slurp(dir_ + "/status")), "0");
        EXPECT_FALSE(slurp(dir_ + "/before").empty());
        EXPECT_EQ(slurp(dir_ + "/after"), slurp(dir_ + "/before")) << "terminal modes not restored";
        EXPECT_EQ(trim(slurp(dir_ + "/nonblock")), "0") << "standard input left non-blocking";
        // Normal screen, cursor shown, no mouse reports (alternate, cursor, button, SGR, any).
        EXPECT_EQ(flags(), "0 1 0 0 0");
    }

    std::string file(const std::string& name) { return slurp(dir_ + "/" + name); }
    bool hasFile(const std::string& name) { return exists(dir_ + "/" + name); }
    int pid() const { return pid_; }
    std::chrono::steady_clock::time_point started() const { return started_; }

private:
    std::string dir_;
    int pid_ = 0;
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};

bool showsBackground(const std::vector<std::string>& lines) {
    return !lines.empty() && lines[0].find(kBackground) != std::string::npos;
}

// The message sits on row height/2, starting at column (width - 34) / 2.
bool showsMessageAt(const std::vector<std::string>& lines, int row, int column) {
    if (static_cast<int>(lines.size()) <= row) return false;
    return lines[row].rfind(std::string(column, ' ') + kMessage, 0) == 0;
}

bool showsNoMessage(const std::vector<std::string>& lines) {
    for (const auto& l : lines)
        if (l.find("Agranda") != std::string::npos) return false;
    return true;
}

} // namespace

#define REQUIRE_TMUX()                                                                             \
    if (!haveTmux()) GTEST_SKIP() << "tmux is not installed"

TEST(Tmux, FullSizeStaysIdleRedrawsOnResizeAndQuitsOnQ) {
    REQUIRE_TMUX();
    Session s(100, 40);
    ASSERT_TRUE(s.waitForSession(showsBackground)) << s.flags();
    EXPECT_TRUE(showsNoMessage(s.screen()));

    // Idle: no wake-ups, so no CPU time at all over a few seconds. Start-up is over
    // first: the initial scan reports its result, and the header is drawn once more
    // when that status message expires about four seconds later.
    std::this_thread::sleep_until(s.started() + 5s);
    ASSERT_TRUE(s.alive());
    const long before = s.cpuTicks();
    std::this_thread::sleep_for(3s);
    EXPECT_EQ(s.cpuTicks(), before) << "the idle program used CPU time";

    s.tmux("resize-window -t t -x 59 -y 20");
    EXPECT_TRUE(waitUntil([&] { return showsMessageAt(s.screen(), 10, 12); }));
    s.tmux("resize-window -t t -x 100 -y 40");
    EXPECT_TRUE(waitUntil([&] {
        auto lines = s.screen(true);
        return showsNoMessage(lines) && showsBackground(lines);
    }));

    s.tmux("send-keys -t t q");
    s.expectCleanExit();

    // Bracketed paste is off again: a paste arrives as plain text.
    s.tmux("set-buffer zz");
    s.tmux("paste-buffer -p -t t");
    s.tmux("send-keys -t t Enter");
    EXPECT_TRUE(waitUntil([&] { return s.hasFile("pasted"); }));
    EXPECT_EQ(trim(s.file("pasted")), " 7a 7a"); // no ESC [200~ around it
}

TEST(Tmux, SmallTerminalShowsTheMessageAndQuitsOnCtrlC) {
    REQUIRE_TMUX();
    Session s(59, 20);
    ASSERT_TRUE(s.waitForSession([](const auto&) { return true; }));
    EXPECT_TRUE(waitUntil([&] { return showsMessageAt(s.screen(), 10, 12); })) << s.screen()[10];
    s.tmux("send-keys -t t C-c");
    s.expectCleanExit();
}

TEST(Tmux, QuitsOnTerminationSignals) {
    REQUIRE_TMUX();
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(sig);
        Session s(100, 40);
        ASSERT_TRUE(s.waitForSession(showsBackground));
        ASSERT_TRUE(s.alive());
        kill(s.pid(), sig);
        s.expectCleanExit();
    }
}

TEST(Tmux, EndsWhenTheTerminalGoesAway) {
    REQUIRE_TMUX();
    Session s(100, 40);
    ASSERT_TRUE(s.waitForSession(showsBackground));
    ASSERT_TRUE(s.alive());
    s.tmux("kill-session -t t");
    EXPECT_TRUE(waitUntil([&] { return !s.alive(); }, 2s)) << "still running after hang-up";
    EXPECT_TRUE(waitUntil([&] { return s.hasFile("status"); }));
    EXPECT_EQ(trim(s.file("status")), "0");
}
