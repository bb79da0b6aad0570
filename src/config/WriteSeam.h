// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Every system call by which a tag write, or a file put in place whole, changes the disk
// passes through here, so that a test can fail any one of them, or stop the process right
// before or after it, and prove that no such point leaves a file torn. Without a hook each
// call is the plain one.

#include <cstddef>
#include <functional>
#include <sys/types.h>

namespace trovan {

enum class WriteCall { open, copy, write, truncate, fsync, rename, unlink, journalWrite };

class WriteSeam {
public:
    struct Call {
        WriteCall kind;
        int fd = -1;                // the descriptor written, synced or truncated
        const char* path = nullptr; // the path opened, renamed or removed
        const char* to = nullptr;   // a rename's new name
        int flags = 0;              // an open's flags
        long result = 0;            // once made
    };
    // Called before each call with `after` false: a non-zero result is an errno, and the
    // call fails with it without being made. Called again with `after` true once a call
    // that was made returns (its result is ignored then). Set only while no write runs.
    using Hook = std::function<int(const Call& call, bool after)>;
    static void setHook(Hook hook);

    static int open(const char* path, int flags, mode_t mode = 0);
    static ssize_t copyFileRange(int from, off_t* fromAt, int to, off_t* toAt, std::size_t n);
    static ssize_t pwrite(int fd, const void* buf, std::size_t n, off_t at);
    static ssize_t journalWrite(int fd, const void* buf, std::size_t n);
    static int ftruncate(int fd, off_t length);
    static int fsync(int fd);
    static int rename(const char* from, const char* to);
    static int unlink(const char* path);
};

} // namespace trovan
