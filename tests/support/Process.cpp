#include "support/Process.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace trovan::fixtures {

ProcessResult runProcess(const std::vector<std::string>& argv) {
    ProcessResult result;
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return result;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);

    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    if (rc == 0) {
        pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
        std::string* sinks[2] = {&result.output, &result.errors};
        int open = 2;
        char buf[65536];
        while (open > 0) {
            if (poll(fds, 2, -1) < 0) {
                if (errno == EINTR) continue;
                break;
            }
            for (int i = 0; i < 2; ++i) {
                if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                auto n = read(fds[i].fd, buf, sizeof buf);
                if (n > 0) {
                    sinks[i]->append(buf, static_cast<std::size_t>(n));
                } else if (n == 0 || errno != EINTR) {
                    fds[i].fd = -1;
                    --open;
                }
            }
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    close(out[0]);
    close(err[0]);
    return result;
}

bool onPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (dir.empty()) continue;
        if (access((dir + "/" + program).c_str(), X_OK) == 0) return true;
    }
    return false;
}

} // namespace trovan::fixtures
