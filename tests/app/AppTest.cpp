// SPDX-License-Identifier: GPL-3.0-or-later
// The program's spine: colour depth, coalesced frames and the ticker inside the process;
// and the real program started with its standard descriptors pointed at pipes, files and
// pseudo-terminals, for what happens before the full screen.

#include "app/App.h"
#include "library/LibraryStore.h"
#include "support/TempDir.h"

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pty.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <tuple>
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

const std::string kUsage =
    "Trovan \xE2\x80\x94 reproductor de m\xC3\xBAsica para terminal\n"
    "\n"
    "Uso: trovan [carpeta \xE2\x80\xA6]\n"
    "  Las carpetas indicadas se agregan a la biblioteca (se recuerdan entre sesiones).\n"
    "  Dentro de la app pulsa ? para ver los atajos y :help para los comandos.\n"
    "\n"
    "Datos: ~/.local/share/Trovan (c\xC3\xA1mbialo con TROVAN_HOME)\n";

const std::string kNotATerminal = "trovan necesita una terminal interactiva\n";

struct Result {
    int status = -1;
    std::string out, err;
};

std::string slurp(const std::filesystem::path& path) {
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

// Runs `trovan <args>` through the shell, standard output and error into files unless
// `args` redirects them (descriptors the test opened are inherited).
Result run(const std::string& args, const std::string& env = "") {
    fixtures::TempDir dir("trovan-cli");
    const int status = std::system((env + " " + TROVAN_BINARY + " >" + (dir / "out").string() +
                                    " 2>" + (dir / "err").string() + " " + args)
                                       .c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(dir / "out"), slurp(dir / "err")};
}

} // namespace

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

TEST(CommandLine, HelpVersionAndUsageErrorsComeBeforeTheTerminalCheck) {
    const std::string version = "trovan " TROVAN_VERSION "\n";
    EXPECT_TRUE(std::regex_match(version, std::regex("trovan [0-9]+\\.[0-9]+\\.[0-9]+\n")));
    auto unknown = [](const std::string& option) {
        return "trovan: opci\xC3\xB3n desconocida: " + option +
               "\nUso: trovan [carpeta \xE2\x80\xA6]   (trovan --help para m\xC3\xA1s)\n";
    };
    // Only the exact spellings are options; after "--" everything is a folder, so the
    // terminal check comes next. Arguments, status, standard output, standard error:
    const std::tuple<const char*, int, std::string, std::string> cases[] = {
        {"-h", 0, kUsage, ""},
        {"--help x", 0, kUsage, ""},
        {"carpeta -h", 0, kUsage, ""},
        {"-V -h", 0, kUsage, ""},
        {"-V", 0, version, ""},
        {"carpeta --version", 0, version, ""},
        {"-help", 2, "", unknown("-help")},
        {"-v", 2, "", unknown("-v")},
        {"--versi\xC3\xB3n", 2, "", unknown("--versi\xC3\xB3n")},
        {"carpeta -x", 2, "", unknown("-x")},
        {"-- -x", 1, "", kNotATerminal},
        {"-- --help", 1, "", kNotATerminal}};
    for (const auto& [args, status, out, err] : cases) {
        const Result r = run(std::string(args) + " </dev/null");
        EXPECT_EQ(r.status, status) << args;
        EXPECT_EQ(r.out, out) << args;
        EXPECT_EQ(r.err, err) << args;
    }
}

// FFmpeg, the sound server's client and the session bus bring some hundred and fifty
// libraries; they are modules loaded after the first frame, never at start.
TEST(CommandLine, StartsWithoutLoadingFFmpegOrTheSoundServer) {
    const Result r = run("--help </dev/null", "LD_DEBUG=files");
    EXPECT_EQ(r.status, 0);
    ASSERT_NE(r.err.find("libtag"), std::string::npos) << "no loader trace:\n" << r.err;
    for (const char* lib :
         {"libavcodec", "libavformat", "libswresample", "libcubeb", "libsdbus", "libsystemd"})
        EXPECT_EQ(r.err.find(lib), std::string::npos) << lib;
}

TEST(CommandLine, RefusesToRunWithoutAnInteractiveTerminal) {
    int master, slave;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    const std::string tty = " >&" + std::to_string(slave), fromTty = " <&" + std::to_string(slave);
    // Input from /dev/null and output to a terminal, or input from a terminal and output
    // to a file: the message, status 1, and the terminal never touched.
    for (const std::string& redirections : {"</dev/null" + tty, fromTty}) {
        const Result r = run(redirections);
        EXPECT_EQ(r.status, 1) << redirections;
        EXPECT_EQ(r.err, kNotATerminal) << redirections;
        EXPECT_EQ(r.out, "") << redirections;
        char c;
        EXPECT_EQ(read(master, &c, 1), -1) << redirections << ": the terminal got output";
    }
    // On a terminal, a cache that is not a database: one line, status 1, the terminal
    // left alone.
    fixtures::TempDir home("trovan-junk-home");
    std::ofstream(home / "library.sqlite") << std::string(4096, 'x');
    // (A program that started anyway would wait for keys: the timeout ends it.)
    const Result r = run(fromTty + tty, "TROVAN_HOME=" + home.path().string() + " timeout 10");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("No se pudo abrir la biblioteca: ", 0), 0u) << r.err;
    char c;
    EXPECT_EQ(read(master, &c, 1), -1) << "the terminal got output";
    close(slave);
    close(master);
}
