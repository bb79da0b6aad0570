// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "terminal/TerminalGraphics.h"

#include <chrono>
#include <string>
#include <string_view>

namespace trovan {

// Asks the terminal, once the session is entered, which image protocols it speaks and
// how many pixels a cell has. The replies are read straight from standard input and
// never reach the screen; keys typed meanwhile are kept for the input decoder.
class GraphicsProbe {
public:
    // Where the program runs, from TERM, TMUX and STY.
    enum class Host { terminal, tmux, screen, silent };
    static Host host(const char* term, const char* tmux, const char* sty);

    // The queries sent to a terminal: a one-pixel kitty image query, the cell size in
    // pixels, the sixel colour registers and, last, the primary device attributes, which
    // every terminal answers and so marks the end of the replies.
    static std::string_view query();

    // Reads the replies as they arrive.
    class Parser {
    public:
        // Takes the next bytes; true once the device attributes have come.
        bool feed(std::string_view bytes);
        // Gives up waiting: an unfinished reply counts as typed bytes.
        void finish();

        TerminalGraphics found;
        bool done = false;
        std::string typed; // bytes that were not replies, in order

    private:
        std::string pending_;
    };

    // Sends the queries on `out`, waits at most `timeout` for the replies on `in`, and
    // fills in the cell size from TIOCGWINSZ when the terminal gives it there. `typed`
    // receives what was read that is not a reply. Inside tmux, images go through its
    // passthrough when it is switched on and the outer terminal is one that takes
    // kitty images; elsewhere in multiplexers and in silent terminals nothing is sent.
    static TerminalGraphics run(Host host, int in, int out, std::chrono::milliseconds timeout,
                                std::string& typed);

    // Cell size in pixels from the window size ioctl on `fd`; zeros when unknown.
    static void cellSizeFromWindow(int fd, TerminalGraphics& graphics);
};

} // namespace trovan
