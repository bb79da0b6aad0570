// SPDX-License-Identifier: GPL-3.0-or-later
#include "config/WriteSeam.h"

#include <cerrno>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

namespace trovan {

namespace {

WriteSeam::Hook& hook() {
    static WriteSeam::Hook h;
    return h;
}

// Makes `call` unless the hook fails it; its result, or -1 with errno set.
template <typename F> auto through(WriteSeam::Call info, F call) -> decltype(call()) {
    auto& h = hook();
    if (!h) return call();
    if (const int error = h(info, false)) {
        errno = error;
        return -1;
    }
    auto result = call();
    const int saved = errno;
    info.result = static_cast<long>(result);
    h(info, true);
    errno = saved;
    return result;
}

} // namespace

void WriteSeam::setHook(Hook h) {
    hook() = std::move(h);
}

int WriteSeam::open(const char* path, int flags, mode_t mode) {
    return through({WriteCall::open, -1, path, nullptr, flags},
                   [&] { return ::open(path, flags, mode); });
}

ssize_t WriteSeam::copyFileRange(int from, off_t* fromAt, int to, off_t* toAt, std::size_t n) {
    return through({WriteCall::copy, to},
                   [&] { return ::copy_file_range(from, fromAt, to, toAt, n, 0); });
}

ssize_t WriteSeam::pwrite(int fd, const void* buf, std::size_t n, off_t at) {
    return through({WriteCall::write, fd}, [&] { return ::pwrite(fd, buf, n, at); });
}

ssize_t WriteSeam::journalWrite(int fd, const void* buf, std::size_t n) {
    return through({WriteCall::journalWrite, fd}, [&] { return ::write(fd, buf, n); });
}

int WriteSeam::ftruncate(int fd, off_t length) {
    return through({WriteCall::truncate, fd}, [&] { return ::ftruncate(fd, length); });
}

int WriteSeam::fsync(int fd) {
    return through({WriteCall::fsync, fd}, [&] { return ::fsync(fd); });
}

int WriteSeam::rename(const char* from, const char* to) {
    return through({WriteCall::rename, -1, from, to}, [&] { return ::rename(from, to); });
}

int WriteSeam::unlink(const char* path) {
    return through({WriteCall::unlink, -1, path}, [&] { return ::unlink(path); });
}

} // namespace trovan
