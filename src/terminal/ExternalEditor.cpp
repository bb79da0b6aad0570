// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/ExternalEditor.h"

#include "config/AppPaths.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace trovan {

namespace {

std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

// 128 random bits as an upper-case hyphenated UUID (version 4).
std::string uuid() {
    std::random_device device;
    unsigned char b[16];
    for (auto& byte : b)
        byte = static_cast<unsigned char>(device());
    b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
    b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
    char out[37];
    std::snprintf(out, sizeof out,
                  "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0],
                  b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
                  b[14], b[15]);
    return out;
}

bool onPath(const std::string& program) {
    const std::string path = env("PATH");
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find(':', start);
        if (end == std::string::npos) end = path.size();
        const std::string dir = end > start ? path.substr(start, end - start) : ".";
        if (::access((dir + "/" + program).c_str(), X_OK) == 0) return true;
        start = end + 1;
    }
    return false;
}

} // namespace

std::string ExternalEditor::command() {
    if (auto visual = env("VISUAL"); !visual.empty()) return visual;
    if (auto editor = env("EDITOR"); !editor.empty()) return editor;
    return onPath("nano") || !onPath("vi") ? "nano" : "vi";
}

std::optional<std::string> ExternalEditor::edit(const std::string& text,
                                                const std::string& fileName, Terminal& terminal) {
    std::string dir = env("TMPDIR");
    if (dir.empty()) dir = "/tmp";
    const std::string path = dir + "/trovan-" + uuid() + "-" + fileName;
    // Private: the folder is shared. Written whole before the editor sees it.
    if (!AppPaths::writeAtomically(path, text, 0600)) return std::nullopt;
    struct Remove {
        const std::string& path;
        ~Remove() { ::unlink(path.c_str()); }
    } remove{path};

    // Only a session we hand over is taken back (tests run without one).
    const bool handedOver = terminal.isActive;
    if (handedOver) {
        restoreTerminal();
        terminal.isActive = false;
    }
    auto takeBack = [&] {
        if (handedOver) terminal.enter();
    };
    // The path arrives as "$1": any spaces or quotes in it reach the editor intact,
    // while the command itself may carry options for the shell to split.
    const std::string script = command() + " \"$1\"";
    std::string a0 = "/bin/sh", a1 = "-c", a3 = "sh", a4 = path;
    std::string a2 = script;
    char* argv[] = {a0.data(), a1.data(), a2.data(), a3.data(), a4.data(), nullptr};
    // The editor shares our process group, so Ctrl-Z or Ctrl-C typed into it reach us as
    // well. While it runs we ignore them (the editor gets the default actions back), and
    // when the editor stops we stop with it, so the shell gets the terminal back and `fg`
    // resumes both.
    struct IgnoreWhileEditing {
        struct sigaction oldStop {
        }, oldInt{};
        IgnoreWhileEditing() {
            struct sigaction ignore {};
            ignore.sa_handler = SIG_IGN;
            ::sigemptyset(&ignore.sa_mask);
            ::sigaction(SIGTSTP, &ignore, &oldStop);
            ::sigaction(SIGINT, &ignore, &oldInt);
        }
        ~IgnoreWhileEditing() {
            ::sigaction(SIGTSTP, &oldStop, nullptr);
            ::sigaction(SIGINT, &oldInt, nullptr);
        }
    } ignoreWhileEditing;
    posix_spawnattr_t attributes;
    if (::posix_spawnattr_init(&attributes) != 0) {
        takeBack();
        return std::nullopt;
    }
    sigset_t defaults;
    ::sigemptyset(&defaults);
    ::sigaddset(&defaults, SIGTSTP);
    ::sigaddset(&defaults, SIGINT);
    ::posix_spawnattr_setsigdefault(&attributes, &defaults);
    // Our threads keep the signals the main loop reads blocked; the editor gets none
    // blocked, as a shell would start it.
    sigset_t none;
    ::sigemptyset(&none);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    pid_t child = 0;
    const int spawned = ::posix_spawn(&child, "/bin/sh", nullptr, &attributes, argv, environ);
    ::posix_spawnattr_destroy(&attributes);
    if (spawned != 0) {
        takeBack();
        return std::nullopt;
    }
    int status = 0;
    for (;;) {
        if (::waitpid(child, &status, WUNTRACED) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (!WIFSTOPPED(status)) break;
        ::raise(SIGSTOP);
        ::kill(child, SIGCONT);
    }
    // The editor's exit status is not looked at: one that exits with an error may still
    // have saved the file.
    auto edited = AppPaths::readCapped(path, maxBytes);
    takeBack();
    if (!edited || *edited == text) return std::nullopt;
    return edited;
}

} // namespace trovan
