// SPDX-License-Identifier: GPL-3.0-or-later
// The program's edges in a real terminal: being stopped and killed, signal masks, what the
// command line says during a session, and folder names from old disks.

#include "app/TmuxSession.h"

#include <map>

using namespace trovan;
using namespace trovan::e2e;

namespace {

std::string paneModes(Session& s) {
    const std::string tty = trim(s.tmux("display -p -t t '#{pane_tty}'"));
    return fixtures::runProcess({"stty", "-g", "-F", tty}).output;
}

char processState(int pid) {
    const std::string stat = slurp("/proc/" + std::to_string(pid) + "/stat");
    const auto close = stat.rfind(')');
    return close == npos || close + 2 >= stat.size() ? '?' : stat[close + 2];
}

} // namespace

TEST(TmuxShell, EveryWayOutGivesTheTerminalBack) {
    if (!haveTmux()) GTEST_SKIP() << "tmux is not installed";
    Session s;
    // It quits on the first three and dies of the fatal ones (a fault is for the
    // sanitizers in this build).
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGABRT}) {
        SCOPED_TRACE(sig);
        s.start();
        ASSERT_TRUE(s.waitForSession()) << s.flags();
        kill(s.pid(), sig);
        s.expectCleanExit(sig == SIGQUIT || sig == SIGABRT ? 128 + sig : 0);
    }
    s.start();
    ASSERT_TRUE(s.waitForSession()) << s.flags();
    s.tmux("kill-session -t t"); // the terminal goes away
    EXPECT_TRUE(waitUntil([&] { return s.has("status"); }, 2s)) << "still running";
    EXPECT_EQ(trim(s.file("status")), "0");
}

TEST(TmuxShell, SignalMasksAndCtrlZ) {
    if (!haveTmux()) GTEST_SKIP() << "tmux is not installed";
    Session s;
    s.start();
    ASSERT_TRUE(s.waitForSession()) << s.flags();

    // The signals the main loop reads from a signalfd are blocked in every thread that
    // lives on (present in two looks half a second apart).
    unsigned long long handled = 0;
    for (int sig : {SIGWINCH, SIGTERM, SIGHUP, SIGINT, SIGTSTP, SIGCONT})
        handled |= 1ULL << (sig - 1);
    auto blocked = [&] {
        std::map<std::string, unsigned long long> out;
        for (const auto& task :
             fs::directory_iterator("/proc/" + std::to_string(s.pid()) + "/task")) {
            const std::string status = slurp(task.path() / "status");
            const auto at = status.find("SigBlk:");
            if (at != npos)
                out[task.path().filename()] = std::stoull(status.substr(at + 7), nullptr, 16);
        }
        return out;
    };
    const auto first = blocked();
    std::this_thread::sleep_for(500ms);
    int lasting = 0;
    for (const auto& [id, mask] : blocked())
        if (first.count(id)) {
            ++lasting;
            EXPECT_EQ(mask & first.at(id) & handled, handled) << "thread " << id;
        }
    EXPECT_GT(lasting, 1);

    // Ctrl-Z: stopped with the terminal as the shell had it; continued (what fg does),
    // the whole screen comes back.
    const std::string raw = paneModes(s);
    s.keys("C-z");
    ASSERT_TRUE(waitUntil([&] { return processState(s.pid()) == 'T'; }, 10s));
    EXPECT_EQ(s.flags(), "0 1 0 0 0");
    EXPECT_EQ(paneModes(s), s.file("before"));
    s.tmux("send-keys -t t -R"); // what the shell would do: clear the screen
    s.tmux("clear-history -t t");
    kill(s.pid(), SIGCONT);
    ASSERT_TRUE(s.waitForSession()) << s.flags();
    EXPECT_TRUE(s.waitFor("Trovan")) << s.screen();
    EXPECT_EQ(paneModes(s), raw);
    s.quit();
}
