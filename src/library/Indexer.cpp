#include "library/Indexer.h"

#include "library/LibraryStore.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <sched.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace trovan {

namespace {

struct DirCloser {
    void operator()(DIR* d) const { closedir(d); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

Dir openFolder(const std::string& path, bool followLink) {
    int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLink ? 0 : O_NOFOLLOW);
    int fd = ::open(path.c_str(), flags);
    if (fd < 0) return nullptr;
    DIR* d = fdopendir(fd);
    if (!d) ::close(fd);
    return Dir(d);
}

// Walks one root without recursion (deep trees cannot exhaust the stack). Folders
// come from d_type; only audio files are stat'ed, once each, relative to their folder.
// Pending folders are kept as paths, not open handles, so wide trees cannot run out of
// descriptors.
void walk(const std::string& root, Dir top, std::unordered_map<std::string, FileStamp>& found) {
    std::vector<std::string> pending; // full paths, "root/rel"
    Dir dir = std::move(top);
    std::string prefix = root;
    for (;;) {
        if (dir) {
            int fd = dirfd(dir.get());
            while (dirent* e = readdir(dir.get())) {
                const char* name = e->d_name;
                if (name[0] == '.') continue; // hidden, and "." / ".."
                unsigned char type = e->d_type;
                struct stat st {};
                bool statted = false;
                if (type == DT_UNKNOWN) {
                    if (fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
                    statted = true;
                    type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
                }
                if (type == DT_DIR) {
                    pending.push_back(prefix + "/" + name);
                    continue;
                }
                if (type != DT_REG || !Track::isAudioPath(name)) continue; // links, devices...
                if (!statted && fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
                if (!S_ISREG(st.st_mode)) continue; // replaced since readdir
                std::string path;
                path.reserve(prefix.size() + 1 + std::strlen(name));
                path += prefix;
                path += '/';
                path += name;
                found.insert_or_assign(
                    std::move(path),
                    FileStamp{FileStamp::seconds(st.st_mtim), static_cast<int64_t>(st.st_size)});
            }
        }
        if (pending.empty()) break;
        prefix = std::move(pending.back());
        pending.pop_back();
        dir = openFolder(prefix, false); // unreadable or vanished folders are skipped
    }
}

} // namespace

int Indexer::activeCores() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
    int n = CPU_COUNT(&set);
    return n > 0 ? n : 1;
}

Indexer::ScanResult Indexer::scan(const std::vector<std::string>& roots) {
    ScanResult result;
    for (const auto& root : roots) {
        struct stat st {};
        // A link to a folder counts as a folder for the root itself.
        if (::stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            result.missingRoots.push_back(root);
            continue;
        }
        auto dir = openFolder(root, true);
        if (!dir) {
            result.missingRoots.push_back(root);
            continue;
        }
        walk(root, std::move(dir), result.found);
    }
    return result;
}

std::vector<Track> Indexer::read(const std::vector<std::string>& paths, const Progress& progress,
                                 int workers) {
    if (paths.empty()) return {};
    const auto total = static_cast<int64_t>(paths.size());
    int64_t w = workers > 0 ? workers : activeCores();
    w = std::max<int64_t>(1, std::min<int64_t>(w, total));

    std::atomic<int64_t> counter{0};
    std::mutex resultMutex;
    std::vector<Track> result;
    result.reserve(paths.size());

    auto work = [&](int64_t index) {
        std::vector<Track> mine;
        for (auto i = index; i < total; i += w) {
            if (auto t = Track::read(paths[static_cast<std::size_t>(i)]))
                mine.push_back(std::move(*t));
            auto n = counter.fetch_add(1, std::memory_order_acq_rel) + 1;
            if (progress && (n % 64 == 0 || n == total)) progress(n, total);
        }
        std::lock_guard lock(resultMutex);
        for (auto& t : mine)
            result.push_back(std::move(t));
    };

    std::vector<std::thread> threads;
    for (int64_t i = 1; i < w; ++i)
        threads.emplace_back(work, i);
    work(0);
    for (auto& t : threads)
        t.join();
    return result;
}

IndexSummary Indexer::run(const std::vector<std::string>& roots, LibraryStore& store, bool force,
                          const Progress& progress) {
    auto [found, missingRoots] = scan(roots);
    auto cached = store.stamps();

    std::vector<std::string> toRead;
    for (const auto& [path, stamp] : found) {
        if (force || cached.empty()) {
            toRead.push_back(path);
            continue;
        }
        auto it = cached.find(path);
        if (it == cached.end() || !(it->second == stamp)) toRead.push_back(path);
    }

    std::vector<std::string> deletions;
    for (const auto& [path, stamp] : cached) {
        if (found.contains(path)) continue;
        bool underMissingRoot = false;
        for (const auto& root : missingRoots) {
            if (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
                path[root.size()] == '/') {
                underMissingRoot = true;
                break;
            }
        }
        if (!underMissingRoot) deletions.push_back(path);
    }

    auto tracks = read(toRead, progress);
    store.apply(tracks, deletions);
    return {static_cast<int64_t>(found.size()), static_cast<int64_t>(tracks.size()),
            static_cast<int64_t>(deletions.size())};
}

} // namespace trovan
