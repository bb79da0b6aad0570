// SPDX-License-Identifier: GPL-3.0-or-later
// The real program started with its standard descriptors pointed at pipes, files and
// pseudo-terminals, for what happens before the full screen.

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pty.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

using namespace trovan;

namespace {

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

TEST(CommandLine, HelpVersionAndUsageErrorsComeBeforeTheTerminalCheck) {
    const std::string version = "trovan " TROVAN_VERSION "\n";
    auto unknown = [](const std::string& option) {
        return "trovan: opci\xC3\xB3n desconocida: " + option +
               "\nUso: trovan [carpeta \xE2\x80\xA6]   (trovan --help para m\xC3\xA1s)\n";
    };
    // Only the exact spellings are options; after "--" everything is a folder, so the
    // terminal check comes next. Arguments, status, standard output, standard error:
    const std::tuple<const char*, int, std::string, std::string> cases[] = {
        {"carpeta -h", 0, kUsage, ""},         {"-V --help", 0, kUsage, ""},
        {"carpeta --version", 0, version, ""}, {"-V", 0, version, ""},
        {"-help", 2, "", unknown("-help")},    {"carpeta -x", 2, "", unknown("-x")},
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
