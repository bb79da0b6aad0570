// SPDX-License-Identifier: GPL-3.0-or-later
// Following the folders (generated trees under $TMPDIR, removed at exit):
//  - setting up the watches of 100,000 files in 10,000 folders: time, and the memory it
//    adds to the process's heap and to the kernel's slab caches (inotify marks);
//  - a burst of 10,000 files written into a watched folder: the cost of reading the
//    events as they come, and of the one incremental update that follows;
//  - from a file's close to its artist's row on the real program's screen.

#include "BenchHarness.h"
#include "library/FolderWatcher.h"
#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "support/Fixtures.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <malloc.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw std::runtime_error("cannot create " + path);
    if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("short write " + path);
    ::close(fd);
}

std::string smallFlac(const std::string& artist) {
    static fx::TempDir dir("trovan-bench-seed");
    fx::Tone tone;
    tone.seconds = 0.1;
    tone.channels = 1;
    tone.sampleRate = 22050;
    tone.tags = {{"TITLE", {"Canción"}}, {"ARTIST", {artist}}, {"ALBUM", {"Álbum"}}};
    return readFile(fx::write(dir.path(), artist + ".flac", tone));
}

// Heap in use by this process, in bytes.
double heapBytes() {
    return static_cast<double>(mallinfo2().uordblks);
}

// Kernel slab memory of the whole machine (inotify marks are merged into the generic
// caches): noisy when other programs run, hence the median of several runs.
double kernelSlabBytes() {
    std::ifstream meminfo("/proc/meminfo");
    for (std::string line; std::getline(meminfo, line);) {
        if (line.rfind("Slab:", 0) != 0) continue;
        return std::stod(line.substr(5)) * 1024;
    }
    return 0;
}

double threadCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// 100,000 empty audio files in 10,000 folders: watching needs the folders only, but it
// walks past the files.
struct Tree {
    fx::TempDir dir{"trovan-bench-watch"};
    std::string root;
    Tree() {
        root = dir.subdir("music").string();
        for (int f = 0; f < 10'000; ++f) {
            const auto folder = root + "/" + std::to_string(f / 100) + "/" + std::to_string(f);
            fs::create_directories(folder);
            for (int i = 0; i < 10; ++i)
                writeFile(folder + "/" + std::to_string(i) + ".flac", {});
        }
    }
};

void BM_WatchSetup100kFiles10kFolders(benchmark::State& state) {
    static Tree tree;
    std::size_t watches = 0;
    double heap = 0, kernel = 0;
    for (auto _ : state) {
        const double heapBefore = heapBytes(), kernelBefore = kernelSlabBytes();
        FolderWatcher watcher;
        watcher.watch({tree.root});
        state.PauseTiming();
        watches = watcher.watchCount();
        heap = heapBytes() - heapBefore;
        kernel = kernelSlabBytes() - kernelBefore;
        state.ResumeTiming();
    }
    state.counters["watches"] = static_cast<double>(watches);
    state.counters["heap_MB"] = heap / 1e6;
    state.counters["kernel_slab_MB"] = kernel / 1e6;
}
BENCHMARK(BM_WatchSetup100kFiles10kFolders)->Unit(benchmark::kMillisecond)->Iterations(5);

// Events read on a thread of their own as they arrive, as the main loop does.
void BM_Burst10kFiles(benchmark::State& state) {
    const std::string bytes = smallFlac("Ráfaga");
    double eventCpu = 0, updateCpu = 0, updateWall = 0;
    int updates = 0;
    int64_t read = 0;
    bool lost = false;
    for (auto _ : state) {
        state.PauseTiming();
        fx::TempDir dir("trovan-bench-burst");
        const std::string root = dir.subdir("music").string();
        writeFile(root + "/seed.flac", bytes);
        LibraryStore store(dir / "library.sqlite");
        Indexer::run({root}, store, false);
        FolderWatcher watcher(1000ms, 5000ms);
        watcher.watch({root});
        std::atomic<bool> stop{false};
        double readerCpu = 0;
        std::thread reader([&] {
            const double start = threadCpuSeconds();
            pollfd p{watcher.fd(), POLLIN, 0};
            while (!stop) {
                if (poll(&p, 1, 50) > 0) watcher.readEvents();
            }
            watcher.readEvents();
            readerCpu = threadCpuSeconds() - start;
        });
        state.ResumeTiming();

        fs::create_directories(root + "/burst");
        for (int i = 0; i < 10'000; ++i)
            writeFile(root + "/burst/" + std::to_string(i) + ".flac", bytes);
        // Changes are due a quiet second after the last event.
        while (!watcher.due() || *watcher.due() > FolderWatcher::Clock::now())
            std::this_thread::sleep_for(10ms);
        stop = true;
        reader.join();
        const FolderChanges changes = watcher.take();
        const auto wall = std::chrono::steady_clock::now();
        const double cpu = std::clock();
        const IndexSummary summary = Indexer::update(changes, {root}, store);
        updateCpu = (std::clock() - cpu) / CLOCKS_PER_SEC;
        updateWall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
        eventCpu = readerCpu;
        read = summary.readCount;
        lost = changes.rescan;
        updates = watcher.due() ? 2 : 1;
    }
    state.counters["events_cpu_ms"] = eventCpu * 1e3;
    state.counters["update_wall_ms"] = updateWall * 1e3;
    state.counters["update_cpu_ms"] = updateCpu * 1e3;
    state.counters["read"] = static_cast<double>(read);
    state.counters["updates"] = updates;
    state.counters["events_lost"] = lost;
}
BENCHMARK(BM_Burst10kFiles)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// From the close of a new file with a new artist to that artist's row on the screen.
void BM_CloseToRow(benchmark::State& state) {
    fx::TempDir dir("trovan-bench-row");
    const fs::path music = dir.subdir("music");
    writeFile((music / "seed.flac").string(), smallFlac("Semilla"));
    std::vector<std::string> files;
    for (int i = 0; i < 5; ++i)
        files.push_back(smallFlac("Zq" + std::to_string(100 + i)));
    bench::Running app(dir.subdir("home"), {music.string()});
    if (!app.waitFor("Biblioteca al d", 30s)) {
        state.SkipWithError("the program did not finish its first scan");
        return;
    }
    app.skipPending(300ms);
    std::size_t n = 0;
    for (auto _ : state) {
        const std::string artist = "Zq" + std::to_string(100 + n);
        writeFile((music / (artist + ".flac")).string(), files[n % files.size()]);
        const auto closed = std::chrono::steady_clock::now();
        if (!app.waitFor(artist, 20s)) {
            state.SkipWithError("the row did not show");
            return;
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - closed).count());
        ++n;
        app.skipPending(200ms);
    }
}
BENCHMARK(BM_CloseToRow)->Unit(benchmark::kMillisecond)->Iterations(5)->UseManualTime();

} // namespace
