#pragma once

#include "terminal/Size.h"

#include <cstddef>
#include <string_view>

namespace trovan {

// The controlling terminal's full-screen session: raw mode, alternate screen, hidden
// cursor, mouse and paste reporting. Every byte shown on screen goes through write().
class Terminal {
public:
    // True between enter() and the matching restore; drawing is skipped while false.
    bool isActive = false;

    // Enters the session; does nothing when already active.
    void enter();

    // Writes every byte to standard output, resuming after EINTR/EAGAIN; other errors
    // drop the rest of the buffer (the next full redraw repairs the screen).
    static void write(std::string_view bytes);

    // The write loop on any descriptor.
    static void writeAll(int fd, std::string_view bytes);

    // Size of the terminal on standard output; 80x24 when unknown.
    static Size querySize();
};

// Leaves the session if one is pending: restores the screen, cursor, reports, the
// saved terminal attributes and standard input's descriptor flags. Safe to call any number of
// times; also the exit hook. It does not touch any Terminal's isActive.
void restoreTerminal();

// The bytes written on entering and leaving the session.
inline constexpr std::string_view kEnterSequence =
    "\x1b[?1049h\x1b[?25l\x1b[?1002h\x1b[?1006h\x1b[?2004h\x1b[2J";
inline constexpr std::string_view kLeaveSequence =
    "\x1b[?2004l\x1b[?1006l\x1b[?1002l\x1b[0m\x1b[?25h\x1b[?1049l";

} // namespace trovan
