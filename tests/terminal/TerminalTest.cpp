#include "terminal/Terminal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <pty.h>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

using namespace trovan;

namespace {

std::string pattern(std::size_t n) {
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>('a' + (i * 7 + i / 4096) % 26);
    return s;
}

// Reads everything from fd until end of file, slowly, so the writer fills the pipe.
std::string drainSlowly(int fd) {
    std::string got;
    char buf[3000];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0) {
            got.append(buf, static_cast<std::size_t>(n));
            if (got.size() % 7 == 0) usleep(100);
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    return got;
}

std::atomic<int> alarms{0};
void onAlarm(int) {
    alarms++;
}

// Runs `body` in a child whose standard input and output are a fresh pseudo-terminal;
// returns what the child wrote to the terminal and its exit status.
std::pair<std::string, int> inPty(void (*body)()) {
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        body();
        _exit(0);
    }
    int status = 0;
    std::string out;
    char buf[4096];
    for (;;) {
        ssize_t n = read(master, buf, sizeof buf);
        if (n > 0)
            out.append(buf, static_cast<std::size_t>(n));
        else if (n < 0 && errno == EINTR)
            continue;
        else
            break; // EIO once the child is gone
    }
    waitpid(pid, &status, 0);
    close(master);
    return {out, WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status)};
}

std::string visible(std::string s) {
    std::string out;
    for (char c : s)
        out += c == '\x1b' ? std::string("^[") : std::string(1, c);
    return out;
}

} // namespace

TEST(TerminalWrite, LargeFramesGoOutWholeInOrder) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const std::string data = pattern(1 << 20); // far more than a pipe holds
    std::string got;
    std::thread reader([&] { got = drainSlowly(fds[0]); });
    Terminal::writeAll(fds[1], data);
    close(fds[1]);
    reader.join();
    close(fds[0]);
    EXPECT_TRUE(got == data) << got.size();
}

TEST(TerminalWrite, ResumesAfterSignalsAndOnNonBlockingDescriptors) {
    struct sigaction sa {};
    sa.sa_handler = onAlarm; // no SA_RESTART: blocked writes fail with EINTR
    sigaction(SIGALRM, &sa, nullptr);
    struct itimerval every {
        {0, 500}, { 0, 500 }
    };

    for (bool nonBlocking : {false, true}) {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        if (nonBlocking) fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
        const std::string data = pattern(1 << 21);
        std::string got;
        std::thread reader([&] {
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, SIGALRM);
            pthread_sigmask(SIG_BLOCK, &set, nullptr);
            got = drainSlowly(fds[0]);
        });
        alarms = 0;
        setitimer(ITIMER_REAL, &every, nullptr);
        Terminal::writeAll(fds[1], data);
        struct itimerval off {};
        setitimer(ITIMER_REAL, &off, nullptr);
        close(fds[1]);
        reader.join();
        close(fds[0]);
        EXPECT_TRUE(got == data) << "nonBlocking=" << nonBlocking << " got " << got.size();
        EXPECT_GT(alarms.load(), 0);
    }
    signal(SIGALRM, SIG_DFL);
}

TEST(TerminalWrite, OtherErrorsDropTheRestInsteadOfSpinning) {
    signal(SIGPIPE, SIG_IGN);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    Terminal::writeAll(fds[1], "lost"); // EPIPE: returns
    close(fds[1]);
    Terminal::writeAll(fds[1], "lost"); // EBADF: returns
    Terminal::writeAll(fds[1], "");
    signal(SIGPIPE, SIG_DFL);
}

TEST(TerminalSession, EnterAndRestoreWriteEachSequenceOnce) {
    auto [out, status] = inPty([] {
        struct termios before {};
        tcgetattr(0, &before);
        Terminal t;
        t.enter();
        t.enter();
        struct termios raw {};
        tcgetattr(0, &raw);
        if (raw.c_lflag & (ECHO | ICANON | ISIG)) _exit(2);
        restoreTerminal();
        restoreTerminal();
        struct termios after {};
        tcgetattr(0, &after);
        if (after.c_lflag != before.c_lflag || after.c_iflag != before.c_iflag ||
            after.c_oflag != before.c_oflag)
            _exit(3);
        _exit(0);
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(visible(out), visible(std::string(kEnterSequence) + std::string(kLeaveSequence)));
}

TEST(TerminalSession, ExitHookRestoresAnyOtherWayOut) {
    auto [out, status] = inPty([] {
        Terminal t;
        t.enter();
        std::exit(7);
    });
    EXPECT_EQ(status, 7);
    EXPECT_EQ(visible(out), visible(std::string(kEnterSequence) + std::string(kLeaveSequence)));

    // After a restore the hook writes nothing more.
    auto [out2, status2] = inPty([] {
        Terminal t;
        t.enter();
        restoreTerminal();
        std::exit(0);
    });
    EXPECT_EQ(status2, 0);
    EXPECT_EQ(visible(out2), visible(std::string(kEnterSequence) + std::string(kLeaveSequence)));
}

TEST(TerminalSession, EnteringAgainRereadsTheAttributes) {
    // Whatever changed while the session was suspended is what the next restore brings back.
    auto [out, status] = inPty([] {
        Terminal t;
        t.enter();
        restoreTerminal();
        t.isActive = false;
        struct termios changed {};
        tcgetattr(0, &changed);
        changed.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(0, TCSANOW, &changed);
        t.enter();
        restoreTerminal();
        struct termios after {};
        tcgetattr(0, &after);
        _exit((after.c_lflag & ECHO) ? 4 : 0);
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(static_cast<int>(out.size()), 2 * 2 * 42);
}

TEST(TerminalSession, SizeQueryFallsBackTo80x24) {
    // In the test runner standard output is not a terminal, or is one with a real size.
    Size s = Terminal::querySize();
    if (!isatty(1)) {
        EXPECT_EQ(s, (Size{80, 24}));
    }
    auto [out, status] = inPty([] {
        struct winsize ws {};
        ws.ws_col = 0;
        ws.ws_row = 30;
        ioctl(1, TIOCSWINSZ, &ws);
        if (!(Terminal::querySize() == Size{80, 24})) _exit(5);
        ws.ws_col = 59;
        ws.ws_row = 0;
        ioctl(1, TIOCSWINSZ, &ws);
        if (!(Terminal::querySize() == Size{59, 0})) _exit(6);
        _exit(0);
    });
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(out.empty());
}
