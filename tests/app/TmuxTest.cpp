// Drives the real program inside tmux, a real terminal emulator: what the screen shows,
// resizing, and every way out, each time checking that the terminal is given back as
// it was found.

#include "TmuxHelpers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace trovan::testing;

namespace {

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

std::string trim(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' '))
        s.pop_back();
    return s;
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
        waitUntil([&] { return has("pid"); }, 10s);
        pid_ = std::atoi(file("pid").c_str());
    }

    ~Session() {
        for (const char* f : {"wrapper.pid", "pid"})
            if (int pid = std::atoi(file(f).c_str()); pid > 0) kill(pid, SIGKILL);
        tmux("kill-server 2>/dev/null");
        std::system(("rm -rf " + shellQuote(dir_)).c_str());
    }

    std::string tmux(const std::string& args) { return tmuxAt(dir_ + "/sock", args); }
    std::string file(const std::string& name) { return slurp(dir_ + "/" + name); }
    bool has(const std::string& name) {
        struct stat st;
        return ::stat((dir_ + "/" + name).c_str(), &st) == 0;
    }

    std::vector<std::string> screen(bool escapes = false) {
        std::stringstream ss(
            tmux(std::string("capture-pane -p ") + (escapes ? "-e " : "") + "-t t"));
        std::vector<std::string> lines;
        for (std::string line; std::getline(ss, line);)
            lines.push_back(line);
        return lines;
    }

    // Alternate screen, cursor shown, mouse button, SGR and any-motion reporting.
    std::string flags() {
        return trim(tmux("display -p -t t '#{alternate_on} #{cursor_flag} #{mouse_button_flag} "
                         "#{mouse_sgr_flag} #{mouse_any_flag}'"));
    }

    // The full-screen session is up and the frame shows the background colour.
    bool waitForSession() {
        return waitUntil([&] { return flags() == "1 0 1 1 1" && showsBackground(); }, 10s);
    }
    bool showsBackground() {
        auto lines = screen(true);
        return !lines.empty() && lines[0].find(kBackground) != std::string::npos;
    }

    // /proc/<pid>/stat: state, and user plus system CPU ticks.
    std::vector<std::string> procStat() {
        std::string s = slurp("/proc/" + std::to_string(pid_) + "/stat");
        std::vector<std::string> fields;
        if (auto close = s.rfind(')'); close != std::string::npos) {
            std::stringstream ss(s.substr(close + 2));
            for (std::string f; ss >> f;)
                fields.push_back(f);
        }
        return fields;
    }
    bool alive() {
        auto f = procStat();
        return !f.empty() && f[0] != "Z";
    }
    long cpuTicks() {
        auto f = procStat();
        return f.size() > 12 ? std::stol(f[11]) + std::stol(f[12]) : -1;
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

    int pid() const { return pid_; }
    const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();

private:
    std::string dir_;
    int pid_ = 0;
};

// The message sits on row height/2, starting at column (width - 34) / 2.
bool showsMessageAt(const std::vector<std::string>& lines, int row, int column) {
    return static_cast<int>(lines.size()) > row &&
           lines[row].rfind(std::string(column, ' ') + kMessage, 0) == 0;
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
    ASSERT_TRUE(s.waitForSession()) << s.flags();
    EXPECT_TRUE(showsNoMessage(s.screen()));

    // Idle: no wake-ups, so no CPU time at all over a few seconds. Start-up is over
    // first: the initial scan reports its result, and the header is drawn once more
    // when that status message expires about four seconds later.
    std::this_thread::sleep_until(s.started + 5s);
    ASSERT_TRUE(s.alive());
    const long before = s.cpuTicks();
    std::this_thread::sleep_for(3s);
    EXPECT_EQ(s.cpuTicks(), before) << "the idle program used CPU time";

    s.tmux("resize-window -t t -x 59 -y 20");
    EXPECT_TRUE(waitUntil([&] { return showsMessageAt(s.screen(), 10, 12); }, 10s));
    s.tmux("resize-window -t t -x 100 -y 40");
    EXPECT_TRUE(waitUntil([&] { return showsNoMessage(s.screen()) && s.showsBackground(); }, 10s));

    s.tmux("send-keys -t t q");
    s.expectCleanExit();

    // Bracketed paste is off again: a paste arrives as plain text.
    s.tmux("set-buffer zz");
    s.tmux("paste-buffer -p -t t");
    s.tmux("send-keys -t t Enter");
    EXPECT_TRUE(waitUntil([&] { return s.has("pasted"); }, 10s));
    EXPECT_EQ(trim(s.file("pasted")), " 7a 7a"); // no ESC [200~ around it
}

TEST(Tmux, SmallTerminalShowsTheMessageAndQuitsOnCtrlC) {
    REQUIRE_TMUX();
    Session s(59, 20);
    EXPECT_TRUE(waitUntil([&] { return showsMessageAt(s.screen(), 10, 12); }, 10s))
        << s.screen().size();
    s.tmux("send-keys -t t C-c");
    s.expectCleanExit();
}

TEST(Tmux, QuitsOnTerminationSignals) {
    REQUIRE_TMUX();
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(sig);
        Session s(100, 40);
        ASSERT_TRUE(s.waitForSession());
        kill(s.pid(), sig);
        s.expectCleanExit();
    }
}

TEST(Tmux, EndsWhenTheTerminalGoesAway) {
    REQUIRE_TMUX();
    Session s(100, 40);
    ASSERT_TRUE(s.waitForSession());
    s.tmux("kill-session -t t");
    EXPECT_TRUE(waitUntil([&] { return !s.alive(); }, 2s)) << "still running after hang-up";
    EXPECT_TRUE(waitUntil([&] { return s.has("status"); }, 10s));
    EXPECT_EQ(trim(s.file("status")), "0");
}
