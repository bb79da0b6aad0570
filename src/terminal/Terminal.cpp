// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/Terminal.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace trovan {

namespace {

// Process-wide: shared by every Terminal, the exit hook and the fatal-signal handler.
// Everything restoreTerminal() touches is set up before restorePending turns true, so
// the handler may run it at any moment.
struct termios savedAttributes {};
int savedFlags = -1; // descriptor 0's status flags (O_NONBLOCK is shared with the shell)
std::atomic<bool> restorePending{false};
bool hooksInstalled = false;
// Standard error while a session is active: the log file, and where it pointed before.
int errorLogFd = -1;
int savedStderrFd = -1;

// Written by restoreTerminal() before the leave sequence. Changed only on the main
// thread while no restore can be running on it; the size is published last.
char leaveExtra[256];
std::atomic<std::size_t> leaveExtraSize{0};

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGABRT, SIGILL, SIGFPE, SIGQUIT};

void exitHook() {
    restoreTerminal();
}

struct sigaction previousActions[sizeof kFatalSignals / sizeof kFatalSignals[0]] = {};

// Gives the terminal back, then lets the signal do what it did before we came (usually
// end the process with that same signal): the earlier action is put back and the signal
// raised again. A fault is not raised: returning re-executes the faulting instruction.
void fatalSignal(int sig, siginfo_t* info, void*) {
    const int savedErrno = errno;
    restoreTerminal();
    for (std::size_t i = 0; i < sizeof kFatalSignals / sizeof kFatalSignals[0]; ++i)
        if (kFatalSignals[i] == sig) sigaction(sig, &previousActions[i], nullptr);
    const bool fault = info && info->si_code > 0 && sig != SIGQUIT && sig != SIGABRT;
    if (!fault) raise(sig);
    errno = savedErrno;
}

void terminateHandler() {
    restoreTerminal();
    static constexpr char kMessage[] = "trovan: error interno inesperado\n";
    ssize_t n = ::write(2, kMessage, sizeof kMessage - 1);
    (void)n;
    std::abort();
}

void installHooks() {
    if (hooksInstalled) return;
    hooksInstalled = true;
    std::atexit(exitHook);
    std::set_terminate(terminateHandler);
    for (std::size_t i = 0; i < sizeof kFatalSignals / sizeof kFatalSignals[0]; ++i) {
        struct sigaction sa {};
        sa.sa_sigaction = fatalSignal;
        sa.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&sa.sa_mask);
        sigaction(kFatalSignals[i], &sa, &previousActions[i]);
    }
}

void pointStderrAtLog() {
    if (errorLogFd == -1) return;
    std::fflush(stderr);
    if (savedStderrFd == -1) savedStderrFd = fcntl(2, F_DUPFD_CLOEXEC, 3);
    if (savedStderrFd != -1) dup2(errorLogFd, 2);
}

} // namespace

void Terminal::enter() {
    if (isActive) return;
    tcgetattr(0, &savedAttributes);
    savedFlags = fcntl(0, F_GETFL);
    struct termios raw = savedAttributes;
    cfmakeraw(&raw);
    tcsetattr(0, TCSAFLUSH, &raw);
    pointStderrAtLog();
    installHooks();
    restorePending = true;
    write(kEnterSequence);
    isActive = true;
}

void Terminal::reapply() {
    if (!isActive) return;
    struct termios raw = savedAttributes;
    cfmakeraw(&raw);
    tcsetattr(0, TCSAFLUSH, &raw);
    write(kEnterSequence);
}

void restoreTerminal() {
    if (!restorePending.exchange(false)) return;
    // Only async-signal-safe calls: this also runs from the fatal-signal handler. One
    // plain write, as looping is pointless there.
    const std::size_t extra = leaveExtraSize.load();
    ssize_t n = extra ? ::write(1, leaveExtra, extra) : 0;
    n = ::write(1, kLeaveSequence.data(), kLeaveSequence.size());
    (void)n;
    tcsetattr(0, TCSAFLUSH, &savedAttributes);
    if (savedFlags != -1) fcntl(0, F_SETFL, savedFlags);
    if (savedStderrFd != -1) dup2(savedStderrFd, 2);
}

void setLeaveExtra(std::string_view bytes) {
    leaveExtraSize = 0;
    if (bytes.size() >= sizeof leaveExtra) return;
    std::memcpy(leaveExtra, bytes.data(), bytes.size());
    leaveExtraSize = bytes.size();
}

bool Terminal::logErrorsTo(const std::filesystem::path& file) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    if (errorLogFd != -1) ::close(errorLogFd);
    errorLogFd = fd;
    return true;
}

void Terminal::trimErrorLog(long long maxBytes) {
    struct stat st {};
    if (errorLogFd == -1 || fstat(errorLogFd, &st) != 0 || st.st_size <= maxBytes) return;
    // Appending writes carry on at the new end.
    if (ftruncate(errorLogFd, 0) == 0) {
        static constexpr char kNote[] = "[registro vaciado: superaba su tama\xC3\xB1o]\n";
        ssize_t n = ::write(errorLogFd, kNote, sizeof kNote - 1);
        (void)n;
    }
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
