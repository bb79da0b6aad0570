// SPDX-License-Identifier: GPL-3.0-or-later
// The real program started with its standard descriptors pointed at pipes, files and
// pseudo-terminals, for what happens before the full screen.

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

using fixtures::slurp;

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

// Options first, then the terminal check, then the cache: each refusal is a message and
// a status, and the terminal is never touched.
TEST(CommandLine, OptionsTerminalAndCacheAreCheckedBeforeTheFullScreen) {
    int master, slave;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    const std::string tty = " >&" + std::to_string(slave), fromTty = " <&" + std::to_string(slave);
    fixtures::TempDir home("trovan-junk-home");
    std::ofstream(home / "library.sqlite") << std::string(4096, 'x');
    // (A program that started anyway would wait for keys: the timeout ends it.)
    const std::string junk = "TROVAN_HOME=" + home.path().string() + " timeout 10";
    const std::string unknown = "trovan: opci\xC3\xB3n desconocida: -help\nUso: trovan [carpeta "
                                "\xE2\x80\xA6]   (trovan --help para m\xC3\xA1s)\n";
    // Arguments, environment, status, standard output, standard error (only its start
    // when it ends in ": "). Only exact spellings are options; after "--" all are folders.
    const std::tuple<std::string, std::string, int, std::string, std::string> cases[] = {
        {"carpeta -h </dev/null", "", 0, kUsage, ""},
        {"-V </dev/null", "", 0, "trovan " TROVAN_VERSION "\n", ""},
        {"carpeta -help </dev/null", "", 2, "", unknown},
        {"-- --help </dev/null", "", 1, "", kNotATerminal},
        {"</dev/null" + tty, "", 1, "", kNotATerminal},
        {fromTty, "", 1, "", kNotATerminal},
        {fromTty + tty, junk, 1, "", "No se pudo abrir la biblioteca: "}};
    for (const auto& [args, env, status, out, err] : cases) {
        const Result r = run(args, env);
        EXPECT_EQ(r.status, status) << args;
        EXPECT_EQ(r.out, out) << args;
        EXPECT_EQ(err.ends_with(": ") ? r.err.substr(0, err.size()) : r.err, err) << args;
        char c;
        EXPECT_EQ(read(master, &c, 1), -1) << args << ": the terminal got output";
    }
    close(slave);
    close(master);
}
