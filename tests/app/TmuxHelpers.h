#pragma once
// Small helpers for the tests that drive the real program inside a private tmux server.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

namespace trovan::testing {

using namespace std::chrono_literals;

inline std::string shellQuote(const std::string& s) {
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

inline std::string slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// Polls `ready` until it holds or `limit` passes; returns its last answer.
inline bool waitUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit = 20s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (ready()) return true;
        std::this_thread::sleep_for(20ms);
    }
    return ready();
}

// Runs a tmux command against the server on `socket` and returns its output.
inline std::string tmuxAt(const std::string& socket, const std::string& args) {
    std::string out;
    if (FILE* p = popen(("tmux -S " + shellQuote(socket) + " " + args).c_str(), "r")) {
        char buf[4096];
        for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;)
            out.append(buf, n);
        pclose(p);
    }
    return out;
}

inline bool haveTmux() {
    return std::system("command -v tmux >/dev/null 2>&1") == 0;
}

} // namespace trovan::testing
