// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/Process.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace trovan::fixtures {

namespace {

// Everything written to an unnamed temporary file (its offset is shared with the child).
std::string contents(FILE* f) {
    std::string text(static_cast<std::size_t>(std::ftell(f)), '\0');
    std::rewind(f);
    text.resize(std::fread(text.data(), 1, text.size(), f));
    std::fclose(f);
    return text;
}

} // namespace

ProcessResult runProcess(const std::vector<std::string>& argv) {
    ProcessResult result;
    // Output goes to temporary files rather than pipes: nothing to poll, no deadlock.
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    if (!out || !err) {
        if (out) std::fclose(out);
        if (err) std::fclose(err);
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fileno(out), 1);
    posix_spawn_file_actions_adddup2(&actions, fileno(err), 2);
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) == 0) {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    result.output = contents(out);
    result.errors = contents(err);
    return result;
}

bool onPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) return true;
    return false;
}

} // namespace trovan::fixtures
