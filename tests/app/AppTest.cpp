#include "app/App.h"
#include "library/LibraryStore.h"
#include "support/TempDir.h"

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <string>
#include <unistd.h>

using namespace trovan;

namespace {

int frames(const std::string& out) {
    int n = 0;
    for (auto p = out.find("\x1b[?2026h"); p != std::string::npos;
         p = out.find("\x1b[?2026h", p + 1))
        ++n;
    return n;
}

// What is written to standard output while `f` runs (and only then, so test failures
// still reach the real output).
template <typename F> std::string stdoutDuring(F f) {
    int fds[2];
    if (pipe2(fds, O_NONBLOCK) != 0) return "pipe failed";
    fflush(stdout);
    int saved = dup(1);
    dup2(fds[1], 1);
    f();
    dup2(saved, 1);
    close(saved);
    close(fds[1]);
    std::string out;
    char buf[65536];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
        out.append(buf, static_cast<std::size_t>(n));
    close(fds[0]);
    return out;
}

// A private data folder for the process (settings are saved on quit) and a store in it.
std::shared_ptr<LibraryStore> testStore() {
    static fixtures::TempDir home("trovan-app-test");
    setenv("TROVAN_HOME", home.path().c_str(), 1);
    return std::make_shared<LibraryStore>(home / "library.sqlite");
}

} // namespace

TEST(AppFrame, BelowSixtyBySixteenOnlyTheCentredMessageShows) {
    asio::io_context io;
    App app(io, testStore());
    auto row = [&](Size size, int y) {
        app.controller().resize(size);
        const App::Frame f = App::composeFrame(app.controller());
        EXPECT_EQ(f.buffer.width(), size.width);
        EXPECT_EQ(f.buffer.height(), size.height);
        std::string s;
        for (int x = 0; x < f.buffer.width() && y < f.buffer.height(); ++x)
            s += f.buffer.at(x, y).ch.str();
        return s;
    };
    const std::string message = "Agranda la terminal (m\xC3\xADnimo 60\xC3\x97"
                                "16)";
    EXPECT_EQ(row({59, 16}, 8), std::string(12, ' ') + message + std::string(13, ' '));
    EXPECT_EQ(row({60, 15}, 7), std::string(13, ' ') + message + std::string(13, ' '));
    EXPECT_EQ(row({10, 3}, 1), "Agranda l\xE2\x80\xA6"); // cut to the width
    for (int y = 0; y < 16; ++y)
        EXPECT_EQ(row({60, 16}, y).find("Agranda"), std::string::npos);
    for (Size s : {Size{0, 0}, Size{1, 1}, Size{0, 30}, Size{300, 0}})
        row(s, 0);
}

TEST(AppFrame, ColourDepthFollowsColorterm) {
    for (const char* yes : {"truecolor", "24bit", "x-truecolor-y"})
        EXPECT_TRUE(App::wantsTruecolor(yes)) << yes;
    for (const char* no : {"TrueColor", "24BIT", "", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(App::wantsTruecolor(no)) << (no ? no : "null");
}

TEST(AppLoop, RenderRequestsAreCoalescedAndTheTickerRunsOnlyWhilePlaying) {
    asio::io_context io;
    App app(io, testStore());
    app.terminal().isActive = true; // draw without taking over the real terminal
    app.controller().resize(Size{70, 20});
    auto pump = [&](auto f) {
        return stdoutDuring([&] {
            f();
            io.restart();
            io.poll();
        });
    };
    ASSERT_EQ(frames(pump([] {})), 1);
    std::string out = pump([&] {
        for (int i = 0; i < 10; ++i)
            app.controller().needsRender();
    });
    EXPECT_EQ(frames(out), 1);
    EXPECT_EQ(out.find("\x1b[2J"), std::string::npos); // nothing changed: no full redraw
    out = pump([&] {
        app.controller().screenInvalidated();
        app.controller().needsRender();
    });
    EXPECT_EQ(frames(out), 1);
    EXPECT_NE(out.find("\x1b[2J"), std::string::npos);

    // About four frames a second while playing (a second start adds no ticker), none after.
    const int ticks = frames(stdoutDuring([&] {
        app.controller().playingChanged(true);
        app.controller().playingChanged(true);
        io.restart();
        io.run_for(std::chrono::milliseconds(900));
    }));
    EXPECT_GE(ticks, 1);
    EXPECT_LE(ticks, 4);
    EXPECT_EQ(stdoutDuring([&] {
                  app.controller().playingChanged(false);
                  io.restart();
                  io.run_for(std::chrono::milliseconds(400));
              }),
              "");

    // While the terminal is handed away nothing is drawn.
    app.terminal().isActive = false;
    EXPECT_EQ(pump([&] { app.controller().needsRender(); }), "");
}
