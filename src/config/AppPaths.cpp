// SPDX-License-Identifier: GPL-3.0-or-later
#include "config/AppPaths.h"
#include "config/WriteSeam.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace trovan {

namespace {

std::filesystem::path home() {
    if (const char* h = std::getenv("HOME"); h && *h) return h;
    if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) return pw->pw_dir;
    return "/tmp";
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        auto n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

} // namespace

std::filesystem::path AppPaths::support() {
    if (const char* t = std::getenv("TROVAN_HOME"); t && *t) return t;
    if (const char* x = std::getenv("XDG_DATA_HOME"); x && *x)
        return std::filesystem::path(x) / "Trovan";
    return home() / ".local" / "share" / "Trovan";
}

std::filesystem::path AppPaths::throughLinks(const std::filesystem::path& target) {
    std::filesystem::path at = target;
    for (int hops = 0; hops < 40; ++hops) {
        std::error_code ec;
        if (!std::filesystem::is_symlink(std::filesystem::symlink_status(at, ec))) return at;
        std::filesystem::path next = std::filesystem::read_symlink(at, ec);
        if (ec) return at;
        at = next.is_absolute() ? next : at.parent_path() / next;
    }
    return at; // a loop: the write fails on it with its own error
}

bool AppPaths::writeAtomically(const std::filesystem::path& link, std::string_view bytes,
                               unsigned newMode) {
    // A file that is a symbolic link (settings kept in a dotfiles repository) is written
    // where it points, and stays a link.
    const std::filesystem::path target = throughLinks(link);
    int error = 0;
    auto fail = [&error](int e) {
        error = e;
        return false;
    };
    std::error_code ec;
    auto folder = target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
    std::filesystem::create_directories(folder, ec);
    if (ec) {
        errno = ec.value();
        return false;
    }

    std::string hidden = ".";
    hidden += target.filename().string();
    hidden += ".XXXXXX";
    std::string pattern = (folder / hidden).string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = mkstemp(name.data());
    if (fd < 0) return false;
    // mkstemp makes the file private; keep the mode the target had, or the usual one.
    mode_t mode = newMode;
    if (struct stat st{}; ::stat(target.c_str(), &st) == 0) mode = st.st_mode & 07777;
    bool ok = (writeAll(fd, bytes) || fail(errno)) && (fchmod(fd, mode) == 0 || fail(errno)) &&
              (fsync(fd) == 0 || fail(errno));
    ok = (::close(fd) == 0 || fail(errno)) && ok;
    bool synced = false;
    if (ok && (replaceWith(name.data(), target.string(), &synced) || fail(errno))) return synced;
    ::unlink(name.data());
    errno = error;
    return false;
}

std::optional<std::string> AppPaths::readCapped(const std::filesystem::path& path,
                                                std::uintmax_t cap, bool* tooLarge) {
    if (tooLarge) *tooLarge = false;
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    std::string bytes;
    char chunk[1 << 16];
    // Read to the end rather than trust the size: the file may grow while it is read.
    while (in && bytes.size() <= cap) {
        in.read(chunk, sizeof chunk);
        bytes.append(chunk, static_cast<std::size_t>(in.gcount()));
    }
    if (bytes.size() > cap) {
        if (tooLarge) *tooLarge = true;
        return std::nullopt;
    }
    if (in.bad() || !in.eof()) return std::nullopt;
    return bytes;
}

bool AppPaths::replaceWith(const std::string& temp, const std::string& target, bool* folderSynced) {
    if (WriteSeam::rename(temp.c_str(), target.c_str()) != 0) return false;
    const bool synced = syncFolder(std::filesystem::path(target).parent_path());
    if (folderSynced) *folderSynced = synced;
    return true;
}

bool AppPaths::syncFolder(const std::filesystem::path& folder) {
    const int fd =
        WriteSeam::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool synced = WriteSeam::fsync(fd) == 0 || errno == EINVAL;
    const int error = errno;
    ::close(fd);
    errno = error;
    return synced;
}

} // namespace trovan
