#include "library/Indexer.h"

#include "library/LibraryStore.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
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

using FoundList = std::vector<std::pair<std::string, FileStamp>>;

// Lists one folder: audio files go to `found` (stat'ed once each, relative to the
// folder), sub-folders to `subfolders`. Hidden entries are skipped; links are not
// followed. Folders come from d_type, so only audio files cost a stat.
void listFolder(DIR* dir, const std::string& prefix, FoundList& found,
                std::vector<std::string>& subfolders) {
    int fd = dirfd(dir);
    while (dirent* e = readdir(dir)) {
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
            std::string sub;
            sub.reserve(prefix.size() + 1 + std::strlen(name));
            sub += prefix;
            sub += '/';
            sub += name;
            subfolders.push_back(std::move(sub));
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
        found.emplace_back(std::move(path), FileStamp{FileStamp::seconds(st.st_mtim),
                                                      static_cast<int64_t>(st.st_size)});
    }
}

// Walks the usable roots on several threads sharing one list of pending folders. Pending
// folders are paths, not open handles, so wide trees cannot run out of descriptors, and
// there is no recursion for deep trees to exhaust.
struct Walk {
    std::mutex mutex;
    std::condition_variable wake;
    std::vector<std::string> pending;
    int busy = 0;

    void worker(FoundList& found) {
        std::vector<std::string> subfolders;
        std::unique_lock lock(mutex);
        for (;;) {
            wake.wait(lock, [&] { return !pending.empty() || busy == 0; });
            if (pending.empty()) return; // nothing queued and nobody can queue more
            auto path = std::move(pending.back());
            pending.pop_back();
            ++busy;
            lock.unlock();
            subfolders.clear();
            // Folders that cannot be read (or vanished) are skipped.
            if (auto dir = openFolder(path, false)) listFolder(dir.get(), path, found, subfolders);
            lock.lock();
            for (auto& sub : subfolders)
                pending.push_back(std::move(sub));
            --busy;
            if (!subfolders.empty() || busy == 0) wake.notify_all();
        }
    }
};

// The roots' own entries are listed here (a root may be a link to a folder); their
// sub-folders are then walked in parallel.
FoundList walkRoots(const std::vector<std::string>& roots, std::vector<std::string>& missingRoots) {
    FoundList found;
    Walk walk;
    for (const auto& root : roots) {
        struct stat st {};
        Dir dir;
        if (::stat(root.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) dir = openFolder(root, true);
        if (!dir) {
            missingRoots.push_back(root);
            continue;
        }
        listFolder(dir.get(), root, found, walk.pending);
    }
    int workers = std::max(1, Indexer::activeCores());
    std::vector<FoundList> lists(static_cast<std::size_t>(workers));
    std::vector<std::thread> threads;
    for (int w = 1; w < workers; ++w)
        threads.emplace_back([&, w] { walk.worker(lists[w]); });
    walk.worker(lists[0]);
    for (auto& t : threads)
        t.join();
    for (auto& list : lists) {
        if (found.empty()) {
            found = std::move(list);
        } else {
            found.reserve(found.size() + list.size());
            std::move(list.begin(), list.end(), std::back_inserter(found));
        }
    }
    return found;
}

bool underAny(std::string_view path, const std::vector<std::string>& roots) {
    for (const auto& root : roots)
        if (path.size() > root.size() && path.substr(0, root.size()) == root &&
            path[root.size()] == '/')
            return true;
    return false;
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
    auto list = walkRoots(roots, result.missingRoots);
    result.found.reserve(list.size());
    for (auto& [path, stamp] : list)
        result.found.insert_or_assign(std::move(path), stamp);
    return result;
}

namespace {

// Reads items on up to `workers` threads, worker w taking items w, w + W, w + 2W...
// `readOne` turns an item into a track or nothing.
template <class Item, class ReadOne>
std::vector<Track> readInParallel(const std::vector<Item>& items, const Indexer::Progress& progress,
                                  int workers, ReadOne readOne) {
    if (items.empty()) return {};
    const auto total = static_cast<int64_t>(items.size());
    int64_t w = workers > 0 ? workers : Indexer::activeCores();
    w = std::max<int64_t>(1, std::min<int64_t>(w, total));

    std::atomic<int64_t> counter{0};
    std::mutex resultMutex;
    std::vector<Track> result;
    result.reserve(items.size());

    auto work = [&](int64_t index) {
        std::vector<Track> mine;
        for (auto i = index; i < total; i += w) {
            if (auto t = readOne(items[static_cast<std::size_t>(i)])) mine.push_back(std::move(*t));
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

} // namespace

std::vector<Track> Indexer::read(const std::vector<std::string>& paths, const Progress& progress,
                                 int workers) {
    return readInParallel(paths, progress, workers,
                          [](const std::string& path) { return Track::read(path); });
}

IndexSummary Indexer::run(const std::vector<std::string>& roots, LibraryStore& store, bool force,
                          const Progress& progress) {
    std::vector<std::string> missingRoots;
    FoundList found = walkRoots(roots, missingRoots);

    // Sorted, the found files can be matched against the cached stamps by binary search
    // while SQLite streams them: no table of a hundred thousand cached paths is built.
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    // Nested or repeated roots reach the same file twice; count and read it once.
    found.erase(std::unique(found.begin(), found.end(),
                            [](const auto& a, const auto& b) { return a.first == b.first; }),
                found.end());

    enum : uint8_t { notCached, unchanged, changed };
    std::vector<uint8_t> state(found.size(), notCached);
    std::vector<std::string> deletions;
    store.forEachStamp([&](std::string_view path, const FileStamp& stamp) {
        auto it =
            std::lower_bound(found.begin(), found.end(), path,
                             [](const auto& entry, std::string_view p) { return entry.first < p; });
        if (it != found.end() && it->first == path) {
            state[static_cast<std::size_t>(it - found.begin())] =
                it->second == stamp ? unchanged : changed;
        } else if (!underAny(path, missingRoots)) {
            deletions.emplace_back(path);
        }
    });

    // The walk's stamps go with the paths, so no file is stat'ed a second time.
    FoundList toRead;
    for (std::size_t i = 0; i < found.size(); ++i)
        if (force || state[i] != unchanged) toRead.push_back(std::move(found[i]));

    auto tracks = readInParallel(toRead, progress, 0, [](const auto& entry) {
        return Track::read(entry.first, entry.second);
    });
    store.apply(tracks, deletions);
    return {static_cast<int64_t>(state.size()), static_cast<int64_t>(tracks.size()),
            static_cast<int64_t>(deletions.size())};
}

} // namespace trovan
