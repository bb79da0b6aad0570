// Runs the real program with its standard descriptors pointed at pipes, files and
// pseudo-terminals, for everything that happens before the full-screen session.

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pty.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

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
    trovan::fixtures::TempDir dir("trovan-cli");
    const int status = std::system((env + " " + TROVAN_BINARY + " >" + (dir / "out").string() +
                                    " 2>" + (dir / "err").string() + " " + args)
                                       .c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(dir / "out"), slurp(dir / "err")};
}

} // namespace

TEST(CommandLine, HelpPrintsTheUsageAndNothingElse) {
    for (const char* args : {"-h", "--help x", "carpeta -h"}) {
        const Result r = run(std::string(args) + " </dev/null");
        EXPECT_EQ(r.status, 0) << args;
        EXPECT_EQ(r.out, kUsage) << args;
        EXPECT_EQ(r.err, "") << args;
    }
    const Result r = run("-help </dev/null"); // only the exact spellings count
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
}

// FFmpeg and the sound server's client bring some hundred and fifty libraries; they are
// modules loaded after the first frame, never at start.
TEST(CommandLine, StartsWithoutLoadingFFmpegOrTheSoundServer) {
    const Result r = run("--help </dev/null", "LD_DEBUG=files");
    EXPECT_EQ(r.status, 0);
    ASSERT_NE(r.err.find("libtag"), std::string::npos) << "no loader trace:\n" << r.err;
    for (const char* lib : {"libavcodec", "libavformat", "libswresample", "libcubeb"})
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
    close(slave);
    close(master);
}
