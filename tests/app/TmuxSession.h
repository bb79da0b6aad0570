// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The real program in a private tmux server, a real terminal emulator, with a private
// data folder; shared by the end-to-end tests.

#include "support/Fixtures.h"
#include "support/SessionBus.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace trovan::e2e {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

inline const auto npos = std::string::npos;
inline const std::string kMessage = "Agranda la terminal (m\xC3\xADnimo 60\xC3\x97"
                                    "16)";

// Runs the program once the test says go (so its output is recorded from the first
// byte); records its pid, exit status, the terminal modes before and after, whether
// standard input was left non-blocking, then one line read from the terminal.
inline const char* kWrapper = R"(trap '' HUP
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

inline std::string shellQuote(const std::string& s) {
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

using fixtures::slurp;

inline std::string trim(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' '))
        s.pop_back();
    return s;
}

inline int occurrences(const std::string& text, const std::string& what) {
    int n = 0;
    for (auto at = text.find(what); at != npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

inline bool waitUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit = 20s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (; std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(20ms))
        if (ready()) return true;
    return ready();
}

// The session bus the program sees: none, unless the suite runs with TROVAN_E2E_BUS=1,
// when it is a private bus shared by the whole test program.
inline std::string defaultBusAddress() {
    const char* wanted = std::getenv("TROVAN_E2E_BUS");
    if (!wanted || std::string(wanted) != "1") return "unix:path=/nonexistent/trovan-no-bus";
    static fixtures::SessionBus bus;
    return bus.address();
}

// The program in one window of a private tmux server; each start gets a new server and
// a new folder for what the wrapper records, and keeps the data folder.
class Session {
public:
    Session() {
        const char* base = std::getenv("TMPDIR");
        std::string tmpl = std::string(base && *base ? base : "/tmp") + "/trovan-e2e-XXXXXX";
        dir_ = mkdtemp(tmpl.data());
        fs::create_directories(home());
    }
    ~Session() {
        stop();
        fs::remove_all(dir_);
    }

    // DBUS_SESSION_BUS_ADDRESS for the next start.
    std::string busAddress = defaultBusAddress();
    // More variables for the program's window at the next start.
    std::map<std::string, std::string> environment;

    const fs::path& dir() const { return dir_; }
    fs::path home() const { return dir_ / "home"; }
    int pid() const { return pid_; }

    void start(const std::vector<std::string>& args = {}, int width = 100, int height = 40) {
        stop();
        run_ = dir_ / ("run" + std::to_string(++runs_));
        fs::create_directories(run_);
        std::ofstream(run_ / "run.sh") << kWrapper;
        std::string command =
            "sh " + shellQuote((run_ / "run.sh").string()) + " " + shellQuote(run_.string());
        // Appended, not " " + std::string: GCC 12's -Wrestrict misreads that in Release.
        command.append(" ").append(shellQuote(TROVAN_BINARY));
        for (const auto& a : args)
            command.append(" ").append(shellQuote(a));
        tmux("-f /dev/null new-session -d -s t -x " + std::to_string(width) + " -y " +
             std::to_string(height) + windowEnvironment() + " " + shellQuote(command));
        tmux("pipe-pane -t t -o " + shellQuote("cat >> " + shellQuote((run_ / "out").string())));
        std::ofstream(run_ / "go") << "";
        waitUntil([&] { return has("pid"); }, 10s);
        pid_ = std::atoi(file("pid").c_str());
    }

    std::string tmux(const std::string& args) {
        return fixtures::runProcess(
                   {"sh", "-c", "tmux -S " + shellQuote((run_ / "sock").string()) + " " + args})
            .output;
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
    // The output file lags the screen by a moment (tmux's pipe).
    bool outputHas(const std::string& text) {
        return waitUntil([&] { return output().find(text) != npos; }, 5s);
    }
    bool configHas(const std::string& text) {
        return waitUntil([&] { return config().find(text) != npos; }, 5s);
    }

    void keys(const std::string& names) { tmux("send-keys -t t " + names); }
    void text(const std::string& literal) { tmux("send-keys -t t -l " + shellQuote(literal)); }
    void command(const std::string& line) { text(line), keys("Enter"); }
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
            [&] {
                return flags() == "1 0 1 1 1" &&
                       screen(true).find("48;2;20;22;28") /* the background */ != npos;
            },
            10s);
    }

    // Waits for the program to end with `status` and checks it left the terminal as it
    // found it.
    void expectCleanExit(int status = 0) {
        ASSERT_TRUE(waitUntil([&] { return has("done"); }, 10s)) << "program did not end";
        // Standard error (a sanitizer's report included) went to the log.
        EXPECT_EQ(trim(file("status")), std::to_string(status)) << slurp(home() / "trovan.log");
        EXPECT_FALSE(file("before").empty());
        EXPECT_EQ(file("after"), file("before")) << "terminal modes not restored";
        EXPECT_EQ(trim(file("nonblock")), "0") << "standard input left non-blocking";
        EXPECT_EQ(flags(), "0 1 0 0 0");
    }
    void quit() {
        text("q");
        expectCleanExit();
    }

private:
    // The variables asked for, and the program's HOME and XDG folders inside this
    // session's folder: whatever libraries write there goes away with it.
    std::string windowEnvironment() {
        const fs::path user = dir_ / "user";
        fs::create_directories(user / "runtime");
        fs::permissions(user / "runtime", fs::perms::owner_all);
        auto env = environment;
        for (const auto& [name, sub] : {std::pair{"HOME", ""},
                                        {"XDG_CONFIG_HOME", ".config"},
                                        {"XDG_CACHE_HOME", ".cache"},
                                        {"XDG_STATE_HOME", ".state"},
                                        {"XDG_RUNTIME_DIR", "runtime"}})
            env[name] = (user / sub).string();
        env["COLORTERM"] = "truecolor";
        env["TROVAN_HOME"] = home().string();
        env["DBUS_SESSION_BUS_ADDRESS"] = busAddress;
        std::string out;
        for (const auto& [name, value] : env)
            out += " -e " + shellQuote(name + "=" + value);
        return out;
    }

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

inline bool haveTmux() {
    return fixtures::onPath("tmux");
}

struct Song {
    std::string path, artist, album, title; // path: inside the music folder
    int number;
    double seconds, hz;
};

// Writes `songs` under `music` (generated once per machine, under `tag`).
inline fs::path writeSongs(const fs::path& music, const std::string& tag,
                           const std::vector<Song>& songs, const std::string& date = {}) {
    for (const Song& song : songs) {
        fixtures::Tone t;
        t.seconds = song.seconds;
        t.frequency = song.hz;
        t.tags = {{"ARTIST", {song.artist}},
                  {"ALBUM", {song.album}},
                  {"TITLE", {song.title}},
                  {"TRACKNUMBER", {std::to_string(song.number)}}};
        if (!date.empty()) t.tags["DATE"] = {date};
        const fs::path file = music / song.path;
        fs::create_directories(file.parent_path());
        std::string name = tag + "-" + song.path;
        std::replace(name.begin(), name.end(), '/', '-');
        fixtures::copyTo(fixtures::cached(name, t), file.parent_path(), file.filename().string());
    }
    return music;
}

// Four 20-second tracks by three artists, two of them in one album.
inline fs::path makeMusic(const fs::path& dir) {
    return writeSongs(dir / "music", "e2e",
                      {{"alfa-1.flac", "Alfa", "Primero", "Amanecer", 1, 20, 330},
                       {"alfa-2.flac", "Alfa", "Primero", "Brisa", 2, 20, 392},
                       {"beta-1.flac", "Beta", "Segundo", "Cometa", 1, 20, 262},
                       {"gamma-1.flac", "Gamma", "Tercero", "Duna", 1, 20, 294}},
                      "2020");
}

} // namespace trovan::e2e
