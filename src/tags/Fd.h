// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A file descriptor closed on every path out; shared by the checked write and its journal.

#include <unistd.h>

namespace trovan {

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset(int fd) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    // Closes now and reports whether the close succeeded (NFS reports write errors here).
    bool close() {
        const int fd = fd_;
        fd_ = -1;
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int fd_;
};

} // namespace trovan
