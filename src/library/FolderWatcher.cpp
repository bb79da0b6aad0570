// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/FolderWatcher.h"

#include "library/Track.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>
#include <utility>

namespace trovan {

namespace {

// Created (folders only: a file being written is taken when it is closed), closed
// after writing, moved in and out, deleted, attributes (touch, chmod), and the folder
// itself going away.
constexpr uint32_t kMask = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE |
                           IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;
// Reads per call: a flood of events leaves the loop free between rounds.
constexpr int kReadsPerRound = 64;

bool within(std::string_view path, const std::string& folder) {
    return path == folder ||
           (path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/');
}

bool dotOrDotDot(const char* n) {
    return n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0));
}

struct DirCloser {
    void operator()(DIR* d) const { closedir(d); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

Dir openFolder(const std::string& path, bool followLink) {
    const int fd =
        ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLink ? 0 : O_NOFOLLOW));
    if (fd < 0) return nullptr;
    DIR* d = fdopendir(fd);
    if (!d) ::close(fd);
    return Dir(d);
}

// A folder that lists something: an unmounted drive leaves an empty mount point.
bool usableFolder(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    Dir dir = openFolder(path, true);
    if (!dir) return false;
    while (const dirent* e = readdir(dir.get()))
        if (!dotOrDotDot(e->d_name)) return true;
    return false;
}

} // namespace

std::optional<std::string> FolderWatcher::untrustedFileSystem(int64_t magic) {
    switch (static_cast<uint32_t>(magic)) {
    case 0x6969:
        return "nfs";
    case 0x517B:
        return "smb";
    case 0xFF534D42:
        return "cifs";
    case 0xFE534D42:
        return "smb2";
    case 0x65735546:
        return "fuse";
    case 0x01021997:
        return "9p";
    case 0x00C36400:
        return "ceph";
    case 0x5346414F:
        return "afs";
    case 0x73757245:
        return "coda";
    case 0x564C:
        return "ncp";
    default:
        return std::nullopt;
    }
}

FolderWatcher::FolderWatcher(std::chrono::milliseconds quiet, std::chrono::milliseconds longest,
                             AddWatch addWatch)
    : quiet_(quiet), longest_(longest), addWatch_(std::move(addWatch)) {
    if (!addWatch_)
        addWatch_ = [](int fd, const char* path, uint32_t mask) {
            return inotify_add_watch(fd, path, mask);
        };
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
}

FolderWatcher::~FolderWatcher() {
    if (fd_ >= 0) ::close(fd_);
}

void FolderWatcher::watch(const std::vector<std::string>& roots) {
    {
        std::lock_guard lock(mutex_);
        for (auto it = roots_.begin(); it != roots_.end();) {
            if (std::find(roots.begin(), roots.end(), it->root) == roots.end()) {
                removeTree(it->root);
                it = roots_.erase(it);
            } else {
                ++it;
            }
        }
        for (const auto& root : roots) {
            if (rootAt(root)) continue;
            RootState fresh;
            fresh.root = root;
            roots_.push_back(std::move(fresh));
        }
    }
    // The walks hold the lock one folder at a time: the loop's thread goes on reading
    // events meanwhile.
    for (const auto& root : roots)
        watchRoot(root);
    // Nested roots share watches: put back the inner ones a dropped outer one took.
    std::lock_guard lock(mutex_);
    for (auto& r : roots_)
        if (r.mode == Mode::watched && !watchOf_.contains(r.root)) {
            r.mode = Mode::missing;
            watchRoot(r.root);
        }
}

void FolderWatcher::clear() {
    std::lock_guard lock(mutex_);
    for (const auto& [folder, wd] : watchOf_)
        inotify_rm_watch(fd_, wd);
    watchOf_.clear();
    folderOf_.clear();
    roots_.clear();
    changes_ = {};
    first_.reset();
    last_.reset();
}

std::vector<FolderWatcher::RootState> FolderWatcher::roots() const {
    std::lock_guard lock(mutex_);
    return roots_;
}

std::size_t FolderWatcher::watchCount() const {
    std::lock_guard lock(mutex_);
    return watchOf_.size();
}

void FolderWatcher::watchRoot(const std::string& path) {
    Mode mode = Mode::watched;
    Reason reason = Reason::none;
    std::string fileSystem;
    if (!usableFolder(path)) {
        mode = Mode::missing;
    } else {
        struct statfs fs {};
        if (statfs(path.c_str(), &fs) == 0)
            fileSystem = untrustedFileSystem(static_cast<int64_t>(fs.f_type)).value_or("");
        if (!fileSystem.empty()) {
            mode = Mode::polled;
            reason = fileSystem == "fuse" ? Reason::userSpace : Reason::network;
        } else if (fd_ < 0 || !addTree(path, true)) {
            mode = Mode::polled;
            reason = Reason::watchLimit;
        }
    }
    std::lock_guard lock(mutex_);
    RootState* root = rootAt(path);
    if (!root) { // no longer listed
        if (mode == Mode::watched) removeTree(path);
        return;
    }
    root->fileSystem = fileSystem;
    if (mode == Mode::watched) {
        if (root->mode != mode) rootsChanged_ = true;
        root->mode = mode;
        root->reason = reason;
    } else {
        dropRoot(*root, mode, reason);
    }
}

void FolderWatcher::dropRoot(RootState& root, Mode mode, Reason reason) {
    // Watches of a root inside another watched root stay with that one.
    const bool shared = std::any_of(roots_.begin(), roots_.end(), [&](const RootState& r) {
        return &r != &root && r.mode == Mode::watched && within(root.root, r.root);
    });
    if (!shared) removeTree(root.root);
    if (root.mode != mode) rootsChanged_ = true;
    root.mode = mode;
    root.reason = reason;
}

bool FolderWatcher::addTree(const std::string& folder, bool followLink) {
    std::vector<std::string> pending{folder};
    bool first = true;
    while (!pending.empty()) {
        std::string path = std::move(pending.back());
        pending.pop_back();
        const bool follow = first && followLink;
        first = false;
        // The watch comes before the listing: a folder made in between is seen either way.
        const int wd = addWatch_(fd_, path.c_str(), kMask | (follow ? 0 : IN_DONT_FOLLOW));
        if (wd < 0) {
            if (errno == ENOSPC || errno == ENOMEM) return false;
            continue; // gone already, or not readable: its parent's events still come
        }
        {
            std::lock_guard lock(mutex_);
            // A watch follows its folder through a rename: the old name goes.
            if (auto it = folderOf_.find(wd); it != folderOf_.end() && it->second != path) {
                if (auto old = watchOf_.find(it->second);
                    old != watchOf_.end() && old->second == wd)
                    watchOf_.erase(old);
            }
            folderOf_[wd] = path;
            watchOf_[path] = wd;
        }
        Dir dir = openFolder(path, follow);
        if (!dir) continue;
        const int dfd = dirfd(dir.get());
        while (const dirent* e = readdir(dir.get())) {
            const char* name = e->d_name;
            if (name[0] == '.') continue; // hidden, and "." and ".."
            unsigned char type = e->d_type;
            if (type == DT_UNKNOWN) {
                struct stat st {};
                if (fstatat(dfd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode))
                    type = DT_DIR;
            }
            if (type == DT_DIR) pending.push_back(path + "/" + name);
        }
    }
    return true;
}

void FolderWatcher::removeTree(const std::string& folder) {
    std::lock_guard lock(mutex_);
    for (auto it = watchOf_.lower_bound(folder);
         it != watchOf_.end() && within(it->first, folder);) {
        if (fd_ >= 0) inotify_rm_watch(fd_, it->second);
        folderOf_.erase(it->second);
        it = watchOf_.erase(it);
    }
}

FolderWatcher::RootState* FolderWatcher::rootAt(const std::string& folder) {
    for (auto& r : roots_)
        if (r.root == folder) return &r;
    return nullptr;
}

void FolderWatcher::readEvents(Clock::time_point now) {
    if (fd_ < 0) return;
    alignas(inotify_event) char buffer[64 * 1024];
    for (int round = 0; round < kReadsPerRound; ++round) {
        const ssize_t n = ::read(fd_, buffer, sizeof buffer);
        if (n <= 0) break;
        std::lock_guard lock(mutex_);
        for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
            const auto* e = reinterpret_cast<const inotify_event*>(buffer + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            if (handle(e->wd, e->mask, e->len ? e->name : "")) note(now);
        }
    }
}

bool FolderWatcher::handle(int wd, uint32_t mask, const char* name) {
    if (mask & IN_Q_OVERFLOW) {
        changes_.rescan = true;
        return true;
    }
    const auto it = folderOf_.find(wd);
    if (it == folderOf_.end()) return false;
    const std::string folder = it->second;
    if (mask & IN_IGNORED) {
        folderOf_.erase(it);
        if (auto w = watchOf_.find(folder); w != watchOf_.end() && w->second == wd)
            watchOf_.erase(w);
        return false;
    }
    if (mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
        // A root that goes keeps its tracks until it comes back; any other folder is
        // dealt with through its parent's event.
        if (RootState* root = rootAt(folder); root && root->mode == Mode::watched)
            dropRoot(*root, Mode::missing);
        return false;
    }
    if (!*name) {
        // The folder's own permissions changed: what it holds may have become readable.
        if (!(mask & IN_ATTRIB)) return false;
        changes_.trees.insert(folder);
        return true;
    }
    if (name[0] == '.') return false; // hidden
    std::string path = folder + "/" + name;
    if (mask & IN_ISDIR) {
        if (mask & (IN_DELETE | IN_MOVED_FROM)) removeTree(path);
        if (mask & (IN_CREATE | IN_MOVED_TO)) {
            if (!addTree(path, false)) {
                // The watch limit ran out: the root this folder is under polls from now.
                for (auto& r : roots_)
                    if (r.mode == Mode::watched && within(path, r.root))
                        dropRoot(r, Mode::polled, Reason::watchLimit);
            }
        }
        changes_.trees.insert(std::move(path));
        return true;
    }
    if (!Track::isAudioPath(name)) return false;
    if (!(mask & (IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB)))
        return false;
    changes_.folders.insert(folder);
    return true;
}

void FolderWatcher::note(Clock::time_point now) {
    if (!first_) first_ = now;
    last_ = now;
}

std::optional<FolderWatcher::Clock::time_point> FolderWatcher::due() const {
    std::lock_guard lock(mutex_);
    if (!first_) return std::nullopt;
    return std::min(*last_ + quiet_, *first_ + longest_);
}

FolderChanges FolderWatcher::take() {
    std::lock_guard lock(mutex_);
    FolderChanges out = std::move(changes_);
    changes_ = {};
    first_.reset();
    last_.reset();
    return out;
}

bool FolderWatcher::rootsChanged() {
    std::lock_guard lock(mutex_);
    return std::exchange(rootsChanged_, false);
}

} // namespace trovan
