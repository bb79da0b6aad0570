// SPDX-License-Identifier: GPL-3.0-or-later
// Library benchmarks on generated trees (under $TMPDIR, removed at exit):
//  - rescan of an unchanged tree of 100,000 small audio files in 10,000 folders, next
//    to a bare walk-and-stat of the same tree;
//  - first-scan reading of small files against TagLib's own read cost, same threads;
//  - store apply of 100,000 tracks; loading plus building the index; memory of both.

#include "config/ActiveCores.h"
#include "library/Indexer.h"
#include "library/LibraryIndex.h"
#include "library/LibraryStore.h"
#include "library/Track.h"
#include "support/Fixtures.h"

#include <benchmark/benchmark.h>
#include <taglib/fileref.h>
#include <taglib/tpropertymap.h>

#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;

namespace {

constexpr int kFolders = 10'000;
constexpr int kPerFolder = 10;
constexpr int kTracks = 100'000;

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw std::runtime_error("cannot create " + path);
    if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("short write " + path);
    ::close(fd);
}

// 100,000 tiny tagged MP3 and FLAC files (copies of two generated ones) in 10,000 folders.
struct Tree {
    fx::TempDir dir{"trovan-bench"};
    std::string root;
    std::vector<std::string> files;

    Tree() {
        fx::Tone tone;
        tone.seconds = 0.1;
        tone.channels = 1;
        tone.sampleRate = 22050;
        tone.tags = {{"TITLE", {"Canción"}},
                     {"ARTIST", {"Artista"}},
                     {"ALBUM", {"Álbum"}},
                     {"TRACKNUMBER", {"3/12"}},
                     {"DATE", {"2001"}}};
        tone.format = fx::Format::mp3;
        auto mp3 = readFile(fx::write(dir.path(), "seed.mp3", tone));
        tone.format = fx::Format::flac;
        auto flac = readFile(fx::write(dir.path(), "seed.flac", tone));
        root = dir.subdir("music").string();
        files.reserve(kTracks);
        for (int f = 0; f < kFolders; ++f) {
            auto folder = root + "/" + std::to_string(f / 100) + "/" + std::to_string(f);
            fs::create_directories(folder);
            for (int i = 0; i < kPerFolder; ++i) {
                bool isFlac = i % 2;
                auto path =
                    folder + "/" + std::to_string(i) + (isFlac ? " pista.flac" : " pista.mp3");
                writeFile(path, isFlac ? flac : mp3);
                files.push_back(path);
            }
        }
    }
};

Tree& tree() {
    static Tree t;
    return t;
}

// The baseline: visit every entry with readdir and stat every regular file once.
int64_t bareWalkAndStat(const std::string& root) {
    int64_t files = 0;
    std::vector<std::string> pending{root};
    while (!pending.empty()) {
        auto path = std::move(pending.back());
        pending.pop_back();
        DIR* d = opendir(path.c_str());
        if (!d) continue;
        int fd = dirfd(d);
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            if (e->d_type == DT_DIR) {
                pending.push_back(path + "/" + e->d_name);
            } else if (e->d_type == DT_REG) {
                struct stat st {};
                if (fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) ++files;
            }
        }
        closedir(d);
    }
    return files;
}

void BM_BareWalkAndStat(benchmark::State& state) {
    auto& t = tree();
    for (auto _ : state)
        benchmark::DoNotOptimize(bareWalkAndStat(t.root));
    state.counters["files"] = static_cast<double>(bareWalkAndStat(t.root));
}
BENCHMARK(BM_BareWalkAndStat)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_RescanUnchanged(benchmark::State& state) {
    auto& t = tree();
    fx::TempDir data("trovan-bench-db");
    LibraryStore store(data / "library.sqlite");
    auto first = Indexer::run({t.root}, store, false); // the first scan fills the cache
    if (first.readCount != kTracks) state.SkipWithError("first scan did not read every file");
    IndexSummary summary;
    for (auto _ : state)
        summary = Indexer::run({t.root}, store, false);
    state.counters["found"] = static_cast<double>(summary.fileCount);
    state.counters["reread"] = static_cast<double>(summary.readCount);
}
BENCHMARK(BM_RescanUnchanged)->Unit(benchmark::kMillisecond)->Iterations(5);

// CPU time of the whole process (every thread), in milliseconds.
double processCpuMs() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    auto ms = [](const timeval& t) { return t.tv_sec * 1e3 + t.tv_usec / 1e3; };
    return ms(u.ru_utime) + ms(u.ru_stime);
}

// Reports the process CPU time per iteration beside the wall time: on a machine with few
// cores the scan is CPU-bound, so this shows what overlapping phases can still win.
struct CpuCounter {
    benchmark::State& state;
    double total = 0, start = 0;
    void resume() { start = processCpuMs(); }
    void pause() { total += processCpuMs() - start; }
    ~CpuCounter() {
        state.counters["cpu_ms"] = total / static_cast<double>(std::max<int64_t>(1, state.iterations()));
    }
};

// First-scan reading of the same 10,000 files, on one thread per core in both cases.
constexpr int kReadSample = 10'000;

std::vector<std::string> readSample() {
    auto& t = tree();
    std::vector<std::string> paths(t.files.begin(), t.files.begin() + kReadSample);
    // Both readers measure files already in the page cache.
    for (const auto& p : paths)
        benchmark::DoNotOptimize(readFile(p));
    return paths;
}

void BM_FirstScanTrackRead(benchmark::State& state) {
    auto paths = readSample();
    CpuCounter cpu{state};
    for (auto _ : state) {
        cpu.resume();
        benchmark::DoNotOptimize(Indexer::read(paths));
        cpu.pause();
    }
    state.SetItemsProcessed(state.iterations() * kReadSample);
}
BENCHMARK(BM_FirstScanTrackRead)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

// The whole first scan of those 10,000 files (folders 0 to 9 of the tree): walk, read,
// and the store transactions (a commit every few thousand records), into a fresh store
// each time.
void BM_FirstScanRun(benchmark::State& state) {
    auto& t = tree();
    (void)readSample();
    std::vector<std::string> roots;
    for (int i = 0; i < kReadSample / (100 * kPerFolder); ++i)
        roots.push_back(t.root + "/" + std::to_string(i));
    IndexSummary summary;
    CpuCounter cpu{state};
    for (auto _ : state) {
        state.PauseTiming();
        {
            fx::TempDir data("trovan-bench-db");
            LibraryStore store(data / "library.sqlite");
            state.ResumeTiming();
            cpu.resume();
            summary = Indexer::run(roots, store, false);
            cpu.pause();
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    state.counters["read"] = static_cast<double>(summary.readCount);
    state.SetItemsProcessed(state.iterations() * summary.readCount);
}
BENCHMARK(BM_FirstScanRun)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

void BM_FirstScanTagLibOnly(benchmark::State& state) {
    auto paths = readSample();
    const int workers = std::min(activeCores(), kReadSample);
    CpuCounter cpu{state};
    for (auto _ : state) {
        cpu.resume();
        std::vector<std::thread> threads;
        std::atomic<int64_t> sum{0};
        for (int w = 0; w < workers; ++w)
            threads.emplace_back([&, w] {
                int64_t local = 0;
                for (std::size_t i = static_cast<std::size_t>(w); i < paths.size(); i += workers) {
                    TagLib::FileRef ref(paths[i].c_str(), true, TagLib::AudioProperties::Average);
                    if (ref.isNull()) continue;
                    auto props = ref.file()->properties();
                    local += props.size();
                    if (auto* a = ref.file()->audioProperties())
                        local +=
                            a->lengthInSeconds() + a->bitrate() + a->sampleRate() + a->channels();
                }
                sum += local;
            });
        for (auto& th : threads)
            th.join();
        benchmark::DoNotOptimize(sum.load());
        cpu.pause();
    }
    state.SetItemsProcessed(state.iterations() * kReadSample);
}
BENCHMARK(BM_FirstScanTagLibOnly)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

// 100,000 records shaped like a real library: 2,000 artists, 10 albums each, 5 tracks.
std::vector<Track> syntheticTracks() {
    std::vector<Track> tracks;
    tracks.reserve(kTracks);
    for (int i = 0; i < kTracks; ++i) {
        int artist = i / 50, album = i / 5, number = i % 5 + 1;
        Track t;
        t.artist = (artist % 3 ? "Artista " : "Ártista ") + std::to_string(artist);
        t.albumArtist = artist % 4 ? "" : t.artist;
        t.album = "Disco número " + std::to_string(album);
        t.title = "Canción " + std::to_string(number) + " de " + std::to_string(album);
        t.path = "/home/usuario/Música/" + t.artist + "/" + t.album + "/" + std::to_string(number) +
                 " " + t.title + ".flac";
        t.mtime = 1700000000.0 + i * 0.001;
        t.size = 30'000'000 + i;
        t.genre = "Rock";
        t.year = 1960 + album % 60;
        t.trackNumber = number;
        t.discNumber = 1;
        t.durationMs = 180'000 + i % 1000;
        t.codec = "FLAC";
        t.sampleRate = 44100;
        t.bitrate = 900;
        t.channels = 2;
        tracks.push_back(std::move(t));
    }
    return tracks;
}

void BM_StoreApply100k(benchmark::State& state) {
    auto tracks = syntheticTracks();
    for (auto _ : state) {
        state.PauseTiming();
        fx::TempDir data("trovan-bench-db");
        LibraryStore store(data / "library.sqlite");
        state.ResumeTiming();
        store.apply(tracks, {});
    }
}
BENCHMARK(BM_StoreApply100k)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

struct FilledStore {
    fx::TempDir data{"trovan-bench-db"};
    LibraryStore store{data / "library.sqlite"};
    FilledStore() { store.apply(syntheticTracks(), {}); }
};

FilledStore& filledStore() {
    static FilledStore s;
    return s;
}

void BM_LoadAllAndIndex100k(benchmark::State& state) {
    auto& s = filledStore();
    std::size_t artists = 0;
    for (auto _ : state) {
        LibraryIndex index(s.store.loadTable());
        artists = index.artists.size();
        benchmark::DoNotOptimize(index);
    }
    state.counters["artists"] = static_cast<double>(artists);
}
BENCHMARK(BM_LoadAllAndIndex100k)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

double residentMB() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576.0;
}

// Resident memory added by 100,000 loaded tracks and their index, as a reload builds
// them; the second figure loads full Track records first and keeps them beside the index.
void BM_MemoryTracksAndIndex(benchmark::State& state) {
    auto& s = filledStore();
    for (auto _ : state) {
        malloc_trim(0);
        double before = residentMB();
        {
            LibraryIndex index(s.store.loadTable());
            state.counters["index_MB"] = residentMB() - before;
            benchmark::DoNotOptimize(index);
        }
        malloc_trim(0);
        before = residentMB();
        auto tracks = s.store.loadAll();
        LibraryIndex index(tracks);
        state.counters["list_plus_index_MB"] = residentMB() - before;
        benchmark::DoNotOptimize(index);
    }
}
BENCHMARK(BM_MemoryTracksAndIndex)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace
