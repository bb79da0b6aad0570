// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "terminal/Size.h"

#include <cstddef>
#include <filesystem>
#include <string_view>

namespace trovan {

// The controlling terminal's full-screen session: raw mode, alternate screen, hidden
// cursor, mouse and paste reporting. Every byte shown on screen goes through write().
// The first enter() also makes sure the terminal is given back however the process
// ends: normal exit, std::terminate, or a fatal signal (SIGSEGV, SIGBUS, SIGABRT,
// SIGILL, SIGFPE, SIGQUIT), after which the process dies of that same signal.
class Terminal {
public:
    // True between enter() and the matching restore; drawing is skipped while false.
    bool isActive = false;

    // Enters the session; does nothing when already active. Standard error goes to the
    // log file chosen with logErrorsTo() until the session is left.
    void enter();
    // Sets raw mode and the full-screen modes again on an active session (after the
    // process was stopped and continued, when the shell may have changed them).
    void reapply();

    // Opens (emptying it) the file that receives standard error while a session is
    // active. False when it cannot be opened; standard error then stays as it is.
    static bool logErrorsTo(const std::filesystem::path& file);
    // Empties the log when it has grown past `maxBytes`.
    static void trimErrorLog(long long maxBytes);

    // Writes every byte to standard output, resuming after EINTR/EAGAIN; other errors
    // drop the rest of the buffer (the next full redraw repairs the screen).
    static void write(std::string_view bytes);

    // The write loop on any descriptor.
    static void writeAll(int fd, std::string_view bytes);

    // Size of the terminal on standard output; 80x24 when unknown.
    static Size querySize();
};

// Leaves the session if one is pending: restores the screen, cursor, reports, the
// saved terminal attributes, standard input's descriptor flags and standard error. Safe to
// call any number of times and from a signal handler; also the exit hook. It does not
// touch any Terminal's isActive.
void restoreTerminal();

// Bytes restoreTerminal() writes before leaving the alternate screen (taking our kitty
// pictures away); at most 255 of them, empty for none.
void setLeaveExtra(std::string_view bytes);

// The bytes written on entering and leaving the session.
inline constexpr std::string_view kEnterSequence =
    "\x1b[?1049h\x1b[?25l\x1b[?1002h\x1b[?1006h\x1b[?2004h\x1b[2J";
inline constexpr std::string_view kLeaveSequence =
    "\x1b[?2004l\x1b[?1006l\x1b[?1002l\x1b[0m\x1b[?25h\x1b[?1049l";

} // namespace trovan
