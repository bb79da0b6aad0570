// Runs the real program with its standard descriptors pointed at pipes, files and
// pseudo-terminals, for everything that happens before the full-screen session.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <pty.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

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

std::string readAll(int fd) {
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<std::size_t>(n));
    return out;
}

struct Result {
    int status = -1;
    std::string out, err;
};

// Runs trovan with the given descriptors for stdin and stdout (-1: a pipe we read);
// stderr is always a pipe.
Result run(std::vector<std::string> args, int in, int out) {
    int outPipe[2] = {-1, -1}, errPipe[2];
    EXPECT_EQ(pipe(errPipe), 0);
    if (out < 0) {
        EXPECT_EQ(pipe(outPipe), 0);
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in, 0);
    posix_spawn_file_actions_adddup2(&fa, out < 0 ? outPipe[1] : out, 1);
    posix_spawn_file_actions_adddup2(&fa, errPipe[1], 2);
    std::vector<char*> argv{const_cast<char*>(TROVAN_BINARY)};
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid;
    EXPECT_EQ(posix_spawn(&pid, TROVAN_BINARY, &fa, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&fa);
    close(errPipe[1]);
    Result r;
    if (out < 0) {
        close(outPipe[1]);
        r.out = readAll(outPipe[0]);
        close(outPipe[0]);
    }
    r.err = readAll(errPipe[0]);
    close(errPipe[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

// Everything the master side of a pseudo-terminal has received so far.
std::string drainMaster(int master) {
    int flags = fcntl(master, F_GETFL);
    fcntl(master, F_SETFL, flags | O_NONBLOCK);
    return readAll(master);
}

} // namespace

TEST(CommandLine, HelpPrintsTheUsageAndNothingElse) {
    int devnull = open("/dev/null", O_RDONLY);
    for (const auto& args : {std::vector<std::string>{"-h"}, {"--help", "x"}, {"carpeta", "-h"}}) {
        Result r = run(args, devnull, -1);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, kUsage);
        EXPECT_EQ(r.err, "");
    }
    // Only the exact spellings count.
    Result r = run({"-help"}, devnull, -1);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    close(devnull);
}

// FFmpeg and the sound server's client bring some hundred and fifty libraries; they are
// modules loaded after the first frame, never at start.
TEST(CommandLine, StartsWithoutLoadingFFmpegOrTheSoundServer) {
    int devnull = open("/dev/null", O_RDONLY);
    setenv("LD_DEBUG", "files", 1);
    Result r = run({"--help"}, devnull, -1);
    unsetenv("LD_DEBUG");
    close(devnull);
    EXPECT_EQ(r.status, 0);
    ASSERT_NE(r.err.find("libtag"), std::string::npos) << "no loader trace:\n" << r.err;
    for (const char* lib : {"libavcodec", "libavformat", "libswresample", "libcubeb"})
        EXPECT_EQ(r.err.find(lib), std::string::npos) << lib;
}

TEST(CommandLine, RefusesToRunWithoutAnInteractiveTerminal) {
    int master, slave;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);

    // Input from /dev/null, output to a real terminal: the terminal is never touched.
    int devnull = open("/dev/null", O_RDONLY);
    Result r = run({}, devnull, slave);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, kNotATerminal);
    EXPECT_EQ(drainMaster(master), "");

    // Input from a terminal, output to a file.
    char path[] = "/tmp/trovan-out-XXXXXX";
    int file = mkstemp(path);
    ASSERT_GE(file, 0);
    r = run({}, slave, file);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, kNotATerminal);
    lseek(file, 0, SEEK_SET);
    EXPECT_EQ(readAll(file), "");
    EXPECT_EQ(drainMaster(master), "");
    close(file);
    unlink(path);
    close(devnull);
    close(slave);
    close(master);
}
