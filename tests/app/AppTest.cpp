#include "app/App.h"
#include "library/LibraryStore.h"
#include "support/TempDir.h"
#include "terminal/Palette.h"
#include "text/Text.h"

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <string>
#include <unistd.h>

using namespace trovan;

namespace {

std::string rowText(const ScreenBuffer& b, int y) {
    std::string s;
    for (int x = 0; x < b.width(); ++x)
        s += b.at(x, y).ch.str();
    return s;
}

const std::string kMessage = "Agranda la terminal (m\xC3\xADnimo 60\xC3\x97"
                             "16)";

int count(const std::string& hay, const std::string& needle) {
    int n = 0;
    for (auto p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1))
        ++n;
    return n;
}

// Collects what is written to standard output while `f` runs (and only then, so test
// failures still reach the real output).
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
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0)
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

// Runs whatever is ready; the loop has no standing work here, so restart it each time.
void pump(asio::io_context& io) {
    io.restart();
    io.poll();
}

} // namespace

TEST(AppFrame, SmallTerminalShowsOnlyTheCentredMessage) {
    asio::io_context io;
    App app(io, testStore());
    AppController& c = app.controller();
    c.resize(Size{59, 20});
    App::Frame f = App::composeFrame(c);
    ASSERT_EQ(f.buffer.width(), 59);
    EXPECT_EQ(text::displayWidth(kMessage), 34);
    EXPECT_EQ(rowText(f.buffer, 10), std::string(12, ' ') + kMessage + std::string(13, ' '));
    EXPECT_EQ(f.buffer.at(12, 10).style, palette::on(palette::dim));
    EXPECT_EQ(f.buffer.at(0, 0).style, palette::defaultStyle);
    EXPECT_FALSE(f.cursor);

    // Narrower than the message: it starts at column 0 and is cut with an ellipsis.
    c.resize(Size{10, 3});
    f = App::composeFrame(c);
    EXPECT_EQ(rowText(f.buffer, 1), "Agranda l\xE2\x80\xA6");

    // At the minimum size the message is gone and the screen is drawn.
    c.resize(Size{60, 16});
    f = App::composeFrame(c);
    for (int y = 0; y < 16; ++y)
        EXPECT_EQ(rowText(f.buffer, y).find("Agranda"), std::string::npos);
    EXPECT_NE(rowText(f.buffer, 0).find("Trovan"), std::string::npos);

    for (Size s : {Size{0, 0}, Size{1, 1}, Size{0, 30}, Size{300, 0}}) {
        c.resize(s);
        f = App::composeFrame(c);
        EXPECT_EQ(f.buffer.width(), s.width);
        EXPECT_EQ(f.buffer.height(), s.height);
    }
}

TEST(AppFrame, ColourDepthFollowsColorterm) {
    for (const char* yes : {"truecolor", "24bit", "x-truecolor-y"})
        EXPECT_TRUE(App::wantsTruecolor(yes)) << yes;
    for (const char* no : {"TrueColor", "24BIT", "", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(App::wantsTruecolor(no)) << (no ? no : "null");
}

TEST(AppLoop, RenderRequestsAreCoalescedIntoOneFrame) {
    asio::io_context io;
    App app(io, testStore());
    app.terminal().isActive = true; // draw without taking over the real terminal
    app.controller().resize(Size{70, 20});
    ASSERT_EQ(count(stdoutDuring([&] { pump(io); }), "\x1b[?2026h"), 1);

    std::string frames = stdoutDuring([&] {
        for (int i = 0; i < 10; ++i)
            app.controller().needsRender();
        pump(io);
    });
    EXPECT_EQ(count(frames, "\x1b[?2026h"), 1);
    EXPECT_EQ(frames.find("\x1b[2J"), std::string::npos); // nothing changed: no redraw

    frames = stdoutDuring([&] {
        app.controller().screenInvalidated();
        app.controller().needsRender();
        pump(io);
    });
    EXPECT_EQ(count(frames, "\x1b[?2026h"), 1);
    EXPECT_NE(frames.find("\x1b[2J"), std::string::npos);

    // While the terminal is handed away nothing is drawn.
    app.terminal().isActive = false;
    EXPECT_EQ(stdoutDuring([&] {
                  app.controller().needsRender();
                  pump(io);
              }),
              "");
}

TEST(AppLoop, TickerDrawsOnlyWhilePlaying) {
    asio::io_context io;
    App app(io, testStore());
    app.terminal().isActive = true;
    stdoutDuring([&] { app.render(); });

    const std::string ticking = stdoutDuring([&] {
        app.controller().playingChanged(true);
        app.controller().playingChanged(true); // already ticking: still one ticker
        io.run_for(std::chrono::milliseconds(900));
    });
    const int ticks = count(ticking, "\x1b[?2026h");
    EXPECT_GE(ticks, 1);
    EXPECT_LE(ticks, 4);

    EXPECT_EQ(stdoutDuring([&] {
                  app.controller().playingChanged(false);
                  io.restart();
                  io.run_for(std::chrono::milliseconds(400));
              }),
              "");
}
