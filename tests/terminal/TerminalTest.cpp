// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/Terminal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <pty.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

using namespace trovan;

static std::atomic<int> alarms{0};

TEST(TerminalWrite, FramesGoOutWholeThroughSignalsAndFullPipesOrGiveUpOnErrors) {
    struct sigaction sa {};
    sa.sa_handler = [](int) { alarms++; }; // no SA_RESTART: blocked writes fail with EINTR
    sigaction(SIGALRM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    std::string data(1 << 21, '\0'); // far more than a pipe holds
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>('a' + (i * 7 + i / 4096) % 26);
    for (bool nonBlocking : {false, true}) {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        if (nonBlocking) fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
        std::string got;
        std::thread reader([&] { // drains slowly so the pipe fills up
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, SIGALRM);
            pthread_sigmask(SIG_BLOCK, &set, nullptr); // the signals land on the writer
            char buf[3000];
            for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) {
                got.append(buf, static_cast<std::size_t>(n));
                if (got.size() % 7 == 0) usleep(100);
            }
        });
        alarms = 0;
        itimerval every{{0, 500}, {0, 500}}, off{};
        setitimer(ITIMER_REAL, &every, nullptr);
        Terminal::writeAll(fds[1], data);
        setitimer(ITIMER_REAL, &off, nullptr);
        close(fds[1]);
        reader.join();
        close(fds[0]);
        EXPECT_TRUE(got == data) << "nonBlocking " << nonBlocking << ": got " << got.size();
        EXPECT_GT(alarms.load(), 0);
    }
    signal(SIGALRM, SIG_DFL);
    // Other errors drop the rest instead of spinning.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    Terminal::writeAll(fds[1], "lost");
    EXPECT_EQ(errno, EPIPE);
    close(fds[1]);
    signal(SIGPIPE, SIG_DFL);
}

namespace {

// What a child run on a fresh pseudo-terminal left: its wait status, everything it
// wrote, and whether the terminal's modes are back.
struct PtyRun {
    int status = 0;
    std::string out;
    bool modesBack = false;
};

// Runs `child` with a fresh pseudo-terminal as its standard input and output.
template <typename F> PtyRun onPty(F child) {
    int master = -1;
    const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        child();
        _exit(0);
    }
    PtyRun r;
    char buf[4096]; // the read ends with EIO once the child is gone
    for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR);)
        if (n > 0) r.out.append(buf, static_cast<std::size_t>(n));
    waitpid(pid, &r.status, 0);
    // A fresh pty starts cooked; the session's raw mode must not have stayed.
    termios now{};
    tcgetattr(master, &now);
    r.modesBack = (now.c_lflag & (ECHO | ICANON | ISIG)) == (ECHO | ICANON | ISIG);
    close(master);
    return r;
}

const std::string kSession = std::string(kEnterSequence) + std::string(kLeaveSequence);

} // namespace

// Every way out restores the terminal once; standard error goes to the log only while the
// session is active, and each run starts the log afresh.
TEST(TerminalSession, LeavesOnceAndLogsStandardErrorOnlyWhileActive) {
    const char* base = std::getenv("TMPDIR");
    std::string logName = std::string(base && *base ? base : "/tmp") + "/trovan-log-XXXXXX";
    const int fd = mkstemp(logName.data());
    ASSERT_GE(fd, 0);
    write(fd, "old run\n", 8);
    close(fd);
    const PtyRun r = onPty([&] {
        winsize ws{};
        ws.ws_row = 30; // no columns: the size is unknown
        ioctl(1, TIOCSWINSZ, &ws);
        if (!(Terminal::querySize() == Size{80, 24})) _exit(2);
        if (!Terminal::logErrorsTo(logName.c_str())) _exit(3);
        termios now{};
        Terminal t;
        t.enter();
        t.enter(); // already active: writes nothing
        tcgetattr(0, &now);
        if (now.c_lflag & (ECHO | ICANON | ISIG)) _exit(4);
        fputs("during\n", stderr);
        restoreTerminal();
        restoreTerminal(); // nothing left to restore: writes nothing
        fputs("after\n", stderr);
        // Back again (after an editor, say): to the log again, and any other way out
        // goes through the exit hook.
        t.isActive = false;
        t.enter();
        fputs("again\n", stderr);
        std::exit(7);
    });
    EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 7) << "wait status " << r.status;
    EXPECT_EQ(r.out, kSession + "after\r\n" + kSession);
    EXPECT_TRUE(r.modesBack);
    std::string log;
    if (FILE* f = fopen(logName.c_str(), "r")) {
        for (int c; (c = fgetc(f)) != EOF;)
            log += static_cast<char>(c);
        fclose(f);
    }
    unlink(logName.c_str());
    EXPECT_EQ(log, "during\nagain\n");
}

TEST(TerminalSession, FatalSignalsAndTerminateGiveTheTerminalBackAndStillKill) {
    const std::pair<int, void (*)()> cases[] = {
        {SIGSEGV,
         [] { // a real fault: a write to a page that allows none
             void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
             *static_cast<volatile int*>(page) = 1;
         }},
        {SIGABRT, [] { std::terminate(); }},
    };
    for (const auto& [sig, die] : cases) {
        const PtyRun r = onPty([die = die] {
            // As in a build without sanitizers, whose own handlers would report and abort.
            for (int s : {SIGSEGV, SIGBUS, SIGABRT, SIGILL, SIGFPE, SIGQUIT})
                signal(s, SIG_DFL);
            Terminal t;
            t.enter();
            die();
        });
        SCOPED_TRACE(strsignal(sig));
        EXPECT_TRUE(WIFSIGNALED(r.status) && WTERMSIG(r.status) == sig) << "status " << r.status;
        EXPECT_EQ(r.out.substr(0, kSession.size()), kSession);
        EXPECT_TRUE(r.modesBack);
    }
}
