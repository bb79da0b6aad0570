// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/Indexer.h"

#include "config/ActiveCores.h"
#include "library/LibraryStore.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <exception>
#include <fcntl.h>
#include <iterator>
#include <mutex>
#include <optional>
#include <sched.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace trovan {

namespace {

// During a session standard error is the log in the data folder: the user finds there
// which files a scan could not read.
void nameUnreadable(const std::string& path) {
    std::fprintf(stderr, "No se pudo leer: %s\n", path.c_str());
}

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

// Whether a folder that could not be opened is gone (its tracks go with it) rather than
// unreadable (permissions, a dead network mount: its tracks stay).
bool vanished(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

using FoundList = std::vector<std::pair<std::string, FileStamp>>;

struct Listing {
    bool complete = true;  // false: reading the folder failed part-way
    std::size_t names = 0; // entries besides "." and "..", hidden ones included
};

// Lists one folder: audio files go to `found` (stat'ed once each, relative to the
// folder), sub-folders to `subfolders`. Hidden entries are skipped; links are not
// followed. Folders come from d_type, so only audio files cost a stat.
Listing listFolder(DIR* dir, const std::string& prefix, FoundList& found,
                   std::vector<std::string>& subfolders) {
    Listing listing;
    int fd = dirfd(dir);
    for (;;) {
        errno = 0;
        dirent* e = readdir(dir);
        if (!e) {
            listing.complete = errno == 0;
            break;
        }
        const char* name = e->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
        ++listing.names;
        if (name[0] == '.') continue; // hidden
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
    return listing;
}

using Entry = std::pair<std::string, FileStamp>;

// Progress of a run that reads files before the walk has found them all: the total is
// known only when the walk ends, so what was read before then is reported at that
// moment. The calls still come at every multiple of 64 and at the total, each once, in
// increasing order.
class ProgressSteps {
public:
    explicit ProgressSteps(const Indexer::Progress& callback) : callback_(callback) {}

    void setTotal(int64_t total) {
        std::lock_guard lock(mutex_);
        total_ = total;
        knownTotal_.store(total, std::memory_order_release);
        reportLocked(done_.load(std::memory_order_acquire));
    }

    void fileDone() {
        const auto n = done_.fetch_add(1, std::memory_order_acq_rel) + 1;
        if (n % 64 == 0 || n == knownTotal_.load(std::memory_order_acquire)) {
            std::lock_guard lock(mutex_);
            reportLocked(n);
        }
    }

private:
    void reportLocked(int64_t n) {
        if (total_ < 0 || !callback_) return;
        n = std::min(n, total_);
        for (; next_ <= n; next_ += 64)
            callback_(next_, total_);
        if (n == total_ && total_ % 64 != 0 && !finished_) {
            finished_ = true;
            callback_(total_, total_);
        }
    }

    const Indexer::Progress& callback_;
    std::mutex mutex_;
    std::atomic<int64_t> done_{0};
    std::atomic<int64_t> knownTotal_{-1};
    int64_t total_ = -1; // guarded by mutex_, as are the two below
    int64_t next_ = 64;
    bool finished_ = false;
};

// The walk of the roots on one thread per core, sharing one list of pending folders.
// Pending folders are paths, not open handles, so wide trees cannot run out of
// descriptors, and there is no recursion for deep trees to exhaust.
//
// When it reads as well, the same threads read the files found whenever no folder is
// waiting (folders first, so the total is known early) and hand the records over in
// chunks, to be stored while the rest are read.
//
// A worker that throws (memory running out) stops the whole walk; the error is kept
// for the caller, who rethrows it once every thread has been joined.
struct Walk {
    static constexpr std::size_t kReadChunk = 8;  // files taken per visit to the lock
    static constexpr std::size_t kHandOver = 256; // records kept before handing them over

    std::mutex mutex;
    std::condition_variable wake;
    std::vector<std::string> folders;  // waiting to be listed
    int listing = 0;                   // folders being listed right now
    std::deque<Entry> files;           // every file found; a deque keeps taken entries in place
    std::vector<std::string> unlisted; // folders that exist but could not be read
    ProgressSteps* progress = nullptr; // set: the walk reads the files too
    std::size_t unread = 0;            // first file no reader has taken
    std::condition_variable recordsReady;
    std::vector<Track> records; // read, waiting to be stored
    int readersLeft = 0;
    bool stopped = false;
    std::exception_ptr error;

    bool walked() const { return folders.empty() && listing == 0; }
    bool reading() const { return progress != nullptr; }

    void worker() {
        try {
            work();
        } catch (...) {
            std::lock_guard lock(mutex);
            if (!error) error = std::current_exception();
            stopped = true;
        }
        std::lock_guard lock(mutex);
        if (reading()) --readersLeft;
        wake.notify_all();
        recordsReady.notify_all();
    }

    // Stops the workers at their next visit to the lock.
    void stop() {
        {
            std::lock_guard lock(mutex);
            stopped = true;
        }
        wake.notify_all();
    }

    void work() {
        std::vector<std::string> subfolders;
        FoundList listed;
        std::vector<const Entry*> taken;
        std::vector<Track> mine;
        std::unique_lock lock(mutex);
        for (;;) {
            wake.wait(lock, [&] {
                return stopped || !folders.empty() || walked() ||
                       (reading() && unread < files.size());
            });
            if (stopped) return;
            if (!folders.empty()) {
                auto path = std::move(folders.back());
                folders.pop_back();
                ++listing;
                lock.unlock();
                subfolders.clear();
                listed.clear();
                // A folder that vanished is skipped; one that cannot be read is noted, so
                // the tracks cached under it are kept.
                bool complete = true;
                if (auto dir = openFolder(path, false))
                    complete = listFolder(dir.get(), path, listed, subfolders).complete;
                else
                    complete = vanished(errno);
                lock.lock();
                --listing;
                if (!complete) unlisted.push_back(path);
                for (auto& sub : subfolders)
                    folders.push_back(std::move(sub));
                for (auto& entry : listed)
                    files.push_back(std::move(entry));
                if (walked()) {
                    if (reading()) progress->setTotal(static_cast<int64_t>(files.size()));
                    wake.notify_all();
                } else if (!subfolders.empty() || (reading() && !listed.empty())) {
                    wake.notify_all();
                }
                continue;
            }
            if (!reading() || unread == files.size()) break; // walked, and nothing left to read
            taken.clear();
            const auto n = std::min(kReadChunk, files.size() - unread);
            for (std::size_t i = 0; i < n; ++i)
                taken.push_back(&files[unread + i]);
            unread += n;
            lock.unlock();
            for (const auto* entry : taken) {
                // The walk's stamp goes with the path, so no file is stat'ed a second time.
                if (auto t = Track::read(entry->first, entry->second))
                    mine.push_back(std::move(*t));
                else
                    nameUnreadable(entry->first);
                progress->fileDone();
            }
            lock.lock();
            if (mine.size() >= kHandOver) handOver(mine);
        }
        if (reading()) handOver(mine);
    }

    // With the lock held.
    void handOver(std::vector<Track>& mine) {
        if (mine.empty()) return;
        if (records.empty()) {
            records.swap(mine);
        } else {
            std::move(mine.begin(), mine.end(), std::back_inserter(records));
            mine.clear();
        }
        recordsReady.notify_one();
    }

    // Lists the roots' own entries here (a root may be a link to a folder); their
    // sub-folders are left for the workers. A root that cannot be read, or holds nothing
    // at all, counts as missing: an unmounted drive leaves an empty mount point behind,
    // and its tracks must not be taken for deleted.
    void listRoots(const std::vector<std::string>& roots, std::vector<std::string>& missingRoots) {
        FoundList listed;
        std::vector<std::string> subfolders;
        for (const auto& root : roots) {
            struct stat st {};
            Dir dir;
            if (::stat(root.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) dir = openFolder(root, true);
            std::size_t kept = listed.size();
            subfolders.clear();
            if (dir) {
                const Listing listing = listFolder(dir.get(), root, listed, subfolders);
                if (!listing.complete || listing.names == 0) dir.reset();
            }
            if (!dir) {
                listed.resize(kept);
                missingRoots.push_back(root);
                continue;
            }
            for (auto& sub : subfolders)
                folders.push_back(std::move(sub));
        }
        for (auto& entry : listed)
            files.push_back(std::move(entry));
        // Roots without sub-folders: the walk is already over.
        if (reading() && walked()) progress->setTotal(static_cast<int64_t>(files.size()));
    }
};

// Starts the walk's threads and joins them however the caller leaves: a thread still
// running when its owner is destroyed would end the program.
class Crew {
public:
    explicit Crew(Walk& walk) : walk_(walk) {}
    ~Crew() {
        walk_.stop();
        join();
    }
    void start(int count) {
        for (int i = 0; i < count; ++i)
            threads_.emplace_back([this] { walk_.worker(); });
    }
    // Joins, then rethrows what a worker threw.
    void finish() {
        join();
        if (walk_.error) std::rethrow_exception(walk_.error);
    }

private:
    void join() {
        for (auto& t : threads_)
            if (t.joinable()) t.join();
    }
    Walk& walk_;
    std::vector<std::thread> threads_;
};

FoundList walkRoots(const std::vector<std::string>& roots, std::vector<std::string>& missingRoots,
                    std::vector<std::string>* unlisted = nullptr) {
    Walk walk;
    walk.listRoots(roots, missingRoots);
    {
        Crew crew(walk);
        crew.start(activeCores() - 1);
        walk.worker();
        crew.finish();
    }
    if (unlisted) *unlisted = std::move(walk.unlisted);
    return FoundList(std::make_move_iterator(walk.files.begin()),
                     std::make_move_iterator(walk.files.end()));
}

// The folder of `folders` that holds `path`, if any.
const std::string* holder(std::string_view path, const std::vector<std::string>& folders) {
    for (const auto& folder : folders)
        if (path.size() > folder.size() && path.substr(0, folder.size()) == folder &&
            path[folder.size()] == '/')
            return &folder;
    return nullptr;
}

bool underAny(std::string_view path, const std::vector<std::string>& roots) {
    return holder(path, roots) != nullptr;
}

// Folders that could not be read (missing roots, unreadable folders): the tracks cached
// under them are kept, and those that held some are named in the summary.
class Protected {
public:
    Protected(std::vector<std::string> folders) : folders_(std::move(folders)) {
        held_.assign(folders_.size(), false);
    }
    // Whether a cached path that was not found is kept.
    bool keeps(std::string_view path) {
        const std::string* folder = holder(path, folders_);
        if (!folder) return false;
        held_[static_cast<std::size_t>(folder - folders_.data())] = true;
        return true;
    }
    std::vector<std::string> held() const {
        std::vector<std::string> out;
        for (std::size_t i = 0; i < folders_.size(); ++i)
            if (held_[i] && std::find(out.begin(), out.end(), folders_[i]) == out.end())
                out.push_back(folders_[i]);
        return out;
    }

private:
    std::vector<std::string> folders_;
    std::vector<bool> held_;
};

} // namespace

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
    int64_t w = workers > 0 ? workers : activeCores();
    w = std::max<int64_t>(1, std::min<int64_t>(w, total));

    std::atomic<int64_t> counter{0};
    std::atomic<bool> failed{false};
    std::mutex resultMutex;
    std::vector<Track> result;
    std::exception_ptr error;
    result.reserve(items.size());

    // A worker that throws stops the others; the first error goes to the caller.
    auto work = [&](int64_t index) {
        try {
            std::vector<Track> mine;
            for (auto i = index; i < total && !failed.load(std::memory_order_relaxed); i += w) {
                if (auto t = readOne(items[static_cast<std::size_t>(i)]))
                    mine.push_back(std::move(*t));
                auto n = counter.fetch_add(1, std::memory_order_acq_rel) + 1;
                if (progress && (n % 64 == 0 || n == total)) progress(n, total);
            }
            std::lock_guard lock(resultMutex);
            for (auto& t : mine)
                result.push_back(std::move(t));
        } catch (...) {
            failed = true;
            std::lock_guard lock(resultMutex);
            if (!error) error = std::current_exception();
        }
    };

    std::vector<std::thread> threads;
    struct Joiner {
        std::vector<std::thread>& threads;
        ~Joiner() {
            for (auto& t : threads)
                t.join();
        }
    } joiner{threads};
    try {
        for (int64_t i = 1; i < w; ++i)
            threads.emplace_back(work, i);
    } catch (...) {
        failed = true; // no thread to spare: the ones started finish, then this is thrown
        throw;
    }
    work(0);
    for (auto& t : threads)
        t.join();
    threads.clear();
    if (error) std::rethrow_exception(error);
    return result;
}

} // namespace

std::vector<Track> Indexer::read(const std::vector<std::string>& paths, const Progress& progress,
                                 int workers) {
    return readInParallel(paths, progress, workers,
                          [](const std::string& path) { return Track::read(path); });
}

namespace {

// Whether a root repeats another or lies inside one: then the same file can be reached
// twice, and only the sorted path list of a plain run counts it once.
bool rootsOverlap(const std::vector<std::string>& roots) {
    for (std::size_t i = 0; i < roots.size(); ++i)
        for (std::size_t j = 0; j < roots.size(); ++j)
            if (i != j && (roots[i] == roots[j] || underAny(roots[i], {roots[j]}))) return true;
    return false;
}

// A run that rereads every file it finds (the first scan, or a forced one): the walk and
// the reading overlap. Into an empty cache the records are also stored as the readers
// hand them over, on the calling thread, committed every few thousand records or
// seconds, so a first scan cut short keeps what it read and the next run goes on from
// there. A forced run over a filled cache keeps the store free while it reads and writes
// everything at the end.
IndexSummary readEverything(const std::vector<std::string>& roots, LibraryStore& store,
                            bool cacheEmpty, const Indexer::Progress& progress) {
    constexpr std::size_t kCommitRecords = 2000;
    constexpr auto kCommitEvery = std::chrono::seconds(3);

    std::vector<std::string> missingRoots;
    ProgressSteps steps(progress);
    Walk walk;
    walk.progress = &steps;
    walk.listRoots(roots, missingRoots);
    const int workers = activeCores();
    walk.readersLeft = workers;
    Crew crew(walk);
    crew.start(workers);

    std::optional<LibraryStore::Batch> batch;
    std::size_t inBatch = 0;
    auto batchStarted = std::chrono::steady_clock::now();
    std::vector<Track> tracks; // kept for the end when not stored as they come
    int64_t readCount = 0;
    {
        std::unique_lock lock(walk.mutex);
        for (;;) {
            walk.recordsReady.wait(lock,
                                   [&] { return !walk.records.empty() || walk.readersLeft == 0; });
            if (walk.records.empty()) break;
            std::vector<Track> chunk;
            chunk.swap(walk.records);
            lock.unlock();
            readCount += static_cast<int64_t>(chunk.size());
            if (cacheEmpty) {
                if (!batch) {
                    batch.emplace(store);
                    batchStarted = std::chrono::steady_clock::now();
                }
                batch->add(chunk);
                inBatch += chunk.size();
                if (inBatch >= kCommitRecords ||
                    std::chrono::steady_clock::now() - batchStarted >= kCommitEvery) {
                    batch->commit({});
                    batch.reset();
                    inBatch = 0;
                }
            } else {
                std::move(chunk.begin(), chunk.end(), std::back_inserter(tracks));
            }
            lock.lock();
        }
    }
    crew.finish();
    if (cacheEmpty) {
        if (batch) batch->commit({});
        const auto files = static_cast<int64_t>(walk.files.size());
        return {files, readCount, 0, {}, files - readCount};
    }

    // Everything cached that was not found is removed, except under a folder that could
    // not be read.
    std::vector<std::string_view> found;
    found.reserve(walk.files.size());
    for (const auto& entry : walk.files)
        found.emplace_back(entry.first);
    std::sort(found.begin(), found.end());
    missingRoots.insert(missingRoots.end(), walk.unlisted.begin(), walk.unlisted.end());
    Protected kept(std::move(missingRoots));
    std::vector<std::string> deletions;
    store.forEachStamp([&](std::string_view path, const FileStamp&) {
        if (!std::binary_search(found.begin(), found.end(), path) && !kept.keeps(path))
            deletions.emplace_back(path);
    });
    store.apply(tracks, deletions);
    const auto files = static_cast<int64_t>(walk.files.size());
    return {files, readCount, static_cast<int64_t>(deletions.size()), kept.held(),
            files - readCount};
}

} // namespace

IndexSummary Indexer::run(const std::vector<std::string>& roots, LibraryStore& store, bool force,
                          const Progress& progress) {
    const IndexSummary summary = scanInto(roots, store, force, progress);
    // A first scan writes the whole library in one transaction; the log it leaves would
    // otherwise stay on disk and be replayed by every start until the next checkpoint.
    if (summary.readCount > 0 || summary.removedCount > 0) store.checkpoint();
    return summary;
}

IndexSummary Indexer::scanInto(const std::vector<std::string>& roots, LibraryStore& store,
                               bool force, const Progress& progress) {
    if (!rootsOverlap(roots)) {
        if (store.isEmpty()) return readEverything(roots, store, true, progress);
        if (force) return readEverything(roots, store, false, progress);
    }

    std::vector<std::string> missingRoots, unlisted;
    FoundList found = walkRoots(roots, missingRoots, &unlisted);
    missingRoots.insert(missingRoots.end(), unlisted.begin(), unlisted.end());
    Protected kept(std::move(missingRoots));

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
        } else if (!kept.keeps(path)) {
            deletions.emplace_back(path);
        }
    });

    // The walk's stamps go with the paths, so no file is stat'ed a second time.
    FoundList toRead;
    for (std::size_t i = 0; i < found.size(); ++i)
        if (force || state[i] != unchanged) toRead.push_back(std::move(found[i]));

    auto tracks = readInParallel(toRead, progress, 0, [](const auto& entry) {
        auto t = Track::read(entry.first, entry.second);
        if (!t) nameUnreadable(entry.first);
        return t;
    });
    store.apply(tracks, deletions);
    return {static_cast<int64_t>(state.size()), static_cast<int64_t>(tracks.size()),
            static_cast<int64_t>(deletions.size()), kept.held(),
            static_cast<int64_t>(toRead.size() - tracks.size())};
}

} // namespace trovan

namespace trovan {

namespace {

bool within(std::string_view path, const std::string& folder) {
    return path == folder ||
           (path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/');
}

// Whether a root can be trusted to show what is on the disk: a folder that lists
// something. An unmounted drive leaves an empty mount point behind.
bool usableRoot(const std::string& root) {
    struct stat st {};
    if (::stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    Dir dir = openFolder(root, true);
    if (!dir) return false;
    while (const dirent* e = readdir(dir.get())) {
        const char* n = e->d_name;
        if (!(n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0)))) return true;
    }
    return false;
}

// A file's name and stamp: what a file moved by a rename keeps.
std::string moveKey(std::string_view path, double mtime, int64_t size) {
    const auto slash = path.rfind('/');
    std::string key(path.substr(slash == std::string_view::npos ? 0 : slash + 1));
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "\n%a\n%lld", mtime, static_cast<long long>(size));
    return key + stamp;
}

} // namespace

IndexSummary Indexer::update(const FolderChanges& changes, const std::vector<std::string>& roots,
                             LibraryStore& store, int workers,
                             std::unordered_map<std::string, std::string>* moves) {
    auto rootOf = [&](const std::string& folder) -> const std::string* {
        for (const auto& root : roots)
            if (within(folder, root)) return &root;
        return nullptr;
    };
    // The sets are sorted, so a tree comes before the folders inside it.
    std::vector<std::string> trees, folders;
    for (const auto& t : changes.trees)
        if (rootOf(t) && (trees.empty() || !within(t, trees.back()))) trees.push_back(t);
    auto inTree = [&](const std::string& f) {
        return std::any_of(trees.begin(), trees.end(),
                           [&](const std::string& t) { return within(f, t); });
    };
    for (const auto& f : changes.folders)
        if (rootOf(f) && !inTree(f)) folders.push_back(f);

    std::vector<std::string> keep; // folders whose cached tracks stay whatever is found
    std::vector<std::string> checked;
    auto rootKept = [&](const std::string& scope) {
        const std::string& root = *rootOf(scope);
        if (std::find(checked.begin(), checked.end(), root) == checked.end()) {
            checked.push_back(root);
            if (!usableRoot(root)) keep.push_back(root);
        }
        return std::find(keep.begin(), keep.end(), root) != keep.end();
    };

    Walk walk;
    FoundList found;
    std::vector<std::string> subfolders;
    for (const auto& t : trees) {
        if (rootKept(t)) continue;
        if (*rootOf(t) != t) {
            walk.folders.push_back(t);
            continue;
        }
        subfolders.clear();
        Dir dir = openFolder(t, true);
        if (!dir || !listFolder(dir.get(), t, found, subfolders).complete) keep.push_back(t);
        for (auto& sub : subfolders)
            walk.folders.push_back(std::move(sub));
    }
    for (const auto& f : folders) {
        if (rootKept(f)) continue;
        subfolders.clear();
        Dir dir = openFolder(f, *rootOf(f) == f);
        if (!dir) {
            if (!vanished(errno)) keep.push_back(f);
        } else if (!listFolder(dir.get(), f, found, subfolders).complete) {
            keep.push_back(f);
        }
    }
    if (!walk.folders.empty()) {
        Crew crew(walk);
        crew.start(std::min(activeCores(), static_cast<int>(walk.folders.size())) - 1);
        walk.worker();
        crew.finish();
    }
    keep.insert(keep.end(), walk.unlisted.begin(), walk.unlisted.end());
    for (auto& entry : walk.files)
        found.push_back(std::move(entry));
    auto byPath = [](const auto& a, const auto& b) { return a.first < b.first; };
    std::sort(found.begin(), found.end(), byPath);
    found.erase(std::unique(found.begin(), found.end(),
                            [](const auto& a, const auto& b) { return a.first == b.first; }),
                found.end());

    // What the cache holds in the same places.
    std::vector<Track> cached;
    auto collect = [&](const std::string& scope, bool deep) {
        const TrackTable table = store.loadUnder(scope);
        for (TrackTable::Id id = 0; id < table.size(); ++id) {
            if (!deep && table.path(id).find('/', scope.size() + 1) != std::string_view::npos)
                continue;
            cached.push_back(table.track(id));
        }
    };
    for (const auto& t : trees)
        collect(t, true);
    for (const auto& f : folders)
        collect(f, false);
    std::sort(cached.begin(), cached.end(),
              [](const Track& a, const Track& b) { return a.path < b.path; });
    cached.erase(std::unique(cached.begin(), cached.end(),
                             [](const Track& a, const Track& b) { return a.path == b.path; }),
                 cached.end());

    Protected kept(std::move(keep));
    std::vector<std::string> deletions;
    std::unordered_multimap<std::string, const Track*> vanishedTracks;
    FoundList appeared, changed;
    {
        std::size_t i = 0, j = 0;
        while (i < found.size() || j < cached.size()) {
            if (j == cached.size() || (i < found.size() && found[i].first < cached[j].path)) {
                appeared.push_back(std::move(found[i++]));
            } else if (i == found.size() || cached[j].path < found[i].first) {
                const Track& t = cached[j++];
                if (kept.keeps(t.path)) continue;
                deletions.push_back(t.path);
                vanishedTracks.emplace(moveKey(t.path, t.mtime, t.size), &t);
            } else {
                if (!(found[i].second == FileStamp{cached[j].mtime, cached[j].size}))
                    changed.push_back(std::move(found[i]));
                ++i;
                ++j;
            }
        }
    }

    // A file that moved within the roots keeps its record under the new path.
    std::vector<Track> upserts;
    FoundList toRead = std::move(changed);
    for (auto& entry : appeared) {
        auto it = vanishedTracks.find(moveKey(entry.first, entry.second.mtime, entry.second.size));
        if (it == vanishedTracks.end()) {
            toRead.push_back(std::move(entry));
            continue;
        }
        Track moved = *it->second;
        if (moves) moves->emplace(moved.path, entry.first);
        moved.path = std::move(entry.first);
        upserts.push_back(std::move(moved));
        vanishedTracks.erase(it);
    }
    const auto movedCount = static_cast<int64_t>(upserts.size());

    auto tracks = readInParallel(toRead, {}, workers, [](const auto& entry) {
        auto t = Track::read(entry.first, entry.second);
        if (!t) nameUnreadable(entry.first);
        return t;
    });
    const auto readCount = static_cast<int64_t>(tracks.size());
    std::move(tracks.begin(), tracks.end(), std::back_inserter(upserts));
    if (!upserts.empty() || !deletions.empty()) store.apply(upserts, deletions);

    IndexSummary summary(static_cast<int64_t>(found.size()), readCount,
                         static_cast<int64_t>(deletions.size()) - movedCount, kept.held(),
                         static_cast<int64_t>(toRead.size()) - readCount);
    summary.movedCount = movedCount;
    return summary;
}

} // namespace trovan
