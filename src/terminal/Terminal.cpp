#include "terminal/Terminal.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace trovan {

namespace {

// Process-wide: shared by every Terminal and by the exit hook.
struct termios savedAttributes {};
int savedFlags = -1; // descriptor 0's status flags (O_NONBLOCK is shared with the shell)
std::atomic<bool> restorePending{false};
bool hookInstalled = false;

void exitHook() {
    restoreTerminal();
}

} // namespace

void Terminal::enter() {
    if (isActive) return;
    tcgetattr(0, &savedAttributes);
    savedFlags = fcntl(0, F_GETFL);
    struct termios raw = savedAttributes;
    cfmakeraw(&raw);
    tcsetattr(0, TCSAFLUSH, &raw);
    restorePending = true;
    if (!hookInstalled) {
        std::atexit(exitHook);
        hookInstalled = true;
    }
    write(kEnterSequence);
    isActive = true;
}

void restoreTerminal() {
    if (!restorePending.exchange(false)) return;
    // One plain write: this also runs from the exit hook, where looping is pointless.
    ssize_t n = ::write(1, kLeaveSequence.data(), kLeaveSequence.size());
    (void)n;
    tcsetattr(0, TCSAFLUSH, &savedAttributes);
    if (savedFlags != -1) fcntl(0, F_SETFL, savedFlags);
}

void Terminal::write(std::string_view bytes) {
    writeAll(1, bytes);
}

void Terminal::writeAll(int fd, std::string_view bytes) {
    std::size_t offset = 0;
    while (offset < bytes.size()) {
        errno = 0;
        ssize_t n = ::write(fd, bytes.data() + offset, bytes.size() - offset);
        if (n > 0) {
            offset += static_cast<std::size_t>(n);
        } else if (errno == EAGAIN) {
            // A non-blocking descriptor that is full: wait until it drains instead of
            // spinning.
            struct pollfd pfd {
                fd, POLLOUT, 0
            };
            poll(&pfd, 1, -1);
        } else if (errno != EINTR) {
            return;
        }
    }
}

Size Terminal::querySize() {
    struct winsize ws {};
    if (ioctl(1, TIOCGWINSZ, &ws) != 0 || ws.ws_col == 0) return Size{80, 24};
    return Size{ws.ws_col, ws.ws_row};
}

} // namespace trovan
