// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/GraphicsProbe.h"

#include "config/EnumNames.h"

#include "terminal/Terminal.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace trovan {

namespace {

constexpr std::string_view kQuery = "\x1b_Gi=31,s=1,v=1,a=q,t=d,f=24;AAAA\x1b\\"
                                    "\x1b[16t"
                                    "\x1b[?1;1;0S"
                                    "\x1b[c";
// A reply longer than this is not one of ours.
constexpr std::size_t kLongestReply = 512;

std::vector<int> numbers(std::string_view s) {
    std::vector<int> out;
    while (!s.empty()) {
        const auto semi = s.find(';');
        const std::string_view piece = s.substr(0, semi);
        int v = -1;
        const auto [end, ec] = std::from_chars(piece.data(), piece.data() + piece.size(), v);
        out.push_back(ec == std::errc() && end == piece.data() + piece.size() ? v : -1);
        if (semi == std::string_view::npos) break;
        s.remove_prefix(semi + 1);
    }
    return out;
}

} // namespace

namespace {
constexpr EnumNames<CoverMode, 4> coverModeNames{{{{CoverMode::automatic, "auto"},
                                                   {CoverMode::kitty, "kitty"},
                                                   {CoverMode::sixel, "sixel"},
                                                   {CoverMode::blocks, "bloques"}}}};
} // namespace

std::optional<CoverMode> coverModeFromString(std::string_view text) {
    return coverModeNames.parse(text);
}

std::string_view toString(CoverMode mode) {
    return coverModeNames(mode);
}

GraphicsChoice chooseGraphics(const TerminalGraphics& t, CoverMode mode) {
    GraphicsChoice c;
    c.passthrough = t.passthrough;
    c.cellWidth = t.cellWidth;
    c.cellHeight = t.cellHeight;
    c.colorRegisters = t.colorRegisters > 0 ? std::min(t.colorRegisters, 256) : 256;
    switch (mode) {
    case CoverMode::blocks:
        break;
    case CoverMode::kitty:
        c.protocol = GraphicsProtocol::kitty;
        break;
    case CoverMode::sixel:
        c.protocol = GraphicsProtocol::sixel;
        break;
    case CoverMode::automatic:
        c.protocol = t.kitty   ? GraphicsProtocol::kitty
                     : t.sixel ? GraphicsProtocol::sixel
                               : GraphicsProtocol::none;
        break;
    }
    // Pictures are made at the cell's pixel size: without one there is nothing to size
    // them by. Sixel through a multiplexer lands wherever its cursor happens to be.
    const bool sized =
        c.cellWidth > 0 && c.cellHeight > 0 && c.cellWidth <= 1000 && c.cellHeight <= 1000;
    if (!sized || (c.protocol == GraphicsProtocol::sixel && c.passthrough))
        c.protocol = GraphicsProtocol::none;
    return c;
}

GraphicsProbe::Host GraphicsProbe::host(const char* term, const char* tmux, const char* sty) {
    const std::string_view t = term ? term : "";
    if (tmux && *tmux) return Host::tmux;
    if ((sty && *sty) || t.starts_with("screen")) return Host::screen;
    if (t.empty() || t == "dumb" || t == "unknown") return Host::silent;
    return Host::terminal;
}

std::string_view GraphicsProbe::query() {
    return kQuery;
}

bool GraphicsProbe::Parser::feed(std::string_view bytes) {
    pending_.append(bytes);
    std::size_t p = 0;
    while (p < pending_.size() && !done) {
        const std::string_view rest = std::string_view(pending_).substr(p);
        if (rest[0] != '\x1b') {
            typed += rest[0];
            ++p;
            continue;
        }
        if (rest.size() < 2) break;
        if (rest[1] == '_') {
            const auto st = rest.find("\x1b\\", 2);
            if (st == std::string_view::npos) {
                if (rest.size() > kLongestReply) {
                    typed += rest.substr(0, 2);
                    p += 2;
                    continue;
                }
                break;
            }
            const std::string_view body = rest.substr(2, st - 2);
            if (body.starts_with("G") && body.find("i=31") != std::string_view::npos &&
                body.find(";OK") != std::string_view::npos)
                found.kitty = true;
            p += st + 2;
            continue;
        }
        if (rest[1] != '[') {
            typed += rest.substr(0, 2);
            p += 2;
            continue;
        }
        std::size_t q = 2;
        while (q < rest.size() && !(rest[q] >= 0x40 && rest[q] <= 0x7e))
            ++q;
        if (q >= rest.size()) {
            if (rest.size() > kLongestReply) {
                typed += rest.substr(0, 2);
                p += 2;
                continue;
            }
            break;
        }
        const char final = rest[q];
        const std::string_view params = rest.substr(2, q - 2);
        bool reply = false;
        if (final == 'c' && params.starts_with("?")) {
            for (int v : numbers(params.substr(1)))
                if (v == 4) found.sixel = true;
            done = true;
            reply = true;
        } else if (final == 't' && params.starts_with("6;")) {
            const auto v = numbers(params.substr(2));
            if (v.size() == 2 && v[0] > 0 && v[1] > 0) {
                found.cellHeight = v[0];
                found.cellWidth = v[1];
            }
            reply = true;
        } else if (final == 'S' && params.starts_with("?1;")) {
            const auto v = numbers(params.substr(3));
            if (v.size() == 2 && v[0] == 0 && v[1] > 0) found.colorRegisters = v[1];
            reply = true;
        }
        if (!reply) typed += rest.substr(0, q + 1);
        p += q + 1;
    }
    pending_.erase(0, p);
    // Whatever follows the last reply was typed.
    if (done) {
        typed += pending_;
        pending_.clear();
    }
    return done;
}

void GraphicsProbe::Parser::finish() {
    typed += pending_;
    pending_.clear();
}

void GraphicsProbe::cellSizeFromWindow(int fd, TerminalGraphics& graphics) {
    struct winsize ws {};
    if (ioctl(fd, TIOCGWINSZ, &ws) != 0 || ws.ws_col == 0 || ws.ws_row == 0) return;
    if (ws.ws_xpixel == 0 || ws.ws_ypixel == 0) return;
    graphics.cellWidth = ws.ws_xpixel / ws.ws_col;
    graphics.cellHeight = ws.ws_ypixel / ws.ws_row;
}

namespace {

// Only a terminal known to take kitty images, named by what it puts in the environment
// (which tmux keeps from the client that started it).
bool outerTerminalTakesKitty() {
    const char* kitty = std::getenv("KITTY_WINDOW_ID");
    const char* program = std::getenv("TERM_PROGRAM");
    const std::string_view p = program ? program : "";
    return (kitty && *kitty) || p == "WezTerm" || p == "ghostty";
}

bool tmuxPassesThrough() {
    FILE* f = popen("tmux show-options -gqv allow-passthrough 2>/dev/null", "r");
    if (!f) return false;
    char buf[32] = {};
    const std::size_t n = std::fread(buf, 1, sizeof buf - 1, f);
    pclose(f);
    const std::string_view v(buf, n);
    return v.starts_with("on") || v.starts_with("all");
}

} // namespace

TerminalGraphics GraphicsProbe::run(Host host, int in, int out, std::chrono::milliseconds timeout,
                                    std::string& typed) {
    TerminalGraphics graphics;
    if (host == Host::silent || host == Host::screen) return graphics;
    if (host == Host::tmux) {
        // tmux keeps its outer terminal's replies to itself: what is asked through its
        // passthrough is never answered, so the environment has to tell.
        if (outerTerminalTakesKitty() && tmuxPassesThrough()) {
            graphics.kitty = true;
            graphics.passthrough = true;
            cellSizeFromWindow(out, graphics);
        }
        return graphics;
    }

    Terminal::writeAll(out, kQuery);
    Parser parser;
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!parser.done) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        struct pollfd p {
            in, POLLIN, 0
        };
        const int ready = poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0 || !(p.revents & POLLIN)) break;
        char buf[1024];
        const ssize_t n = ::read(in, buf, sizeof buf);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) break;
        parser.feed(std::string_view(buf, static_cast<std::size_t>(n)));
    }
    parser.finish();
    typed += parser.typed;
    graphics = parser.found;
    // The window's own figure is exact; the reply is the fallback.
    TerminalGraphics window;
    cellSizeFromWindow(out, window);
    if (window.cellWidth > 0 && window.cellHeight > 0) {
        graphics.cellWidth = window.cellWidth;
        graphics.cellHeight = window.cellHeight;
    }
    // Without device attributes the other replies may be half of something else.
    if (!parser.done) {
        graphics.kitty = false;
        graphics.sixel = false;
    }
    return graphics;
}

} // namespace trovan
