// SPDX-License-Identifier: GPL-3.0-or-later
// The largest libraries: caches of 100,000 and 1,000,000 tracks written straight into
// SQLite under a root that does not exist (so a rescan keeps them cached). The real
// program on a pseudo-terminal gives the time to the first frame and to the artist list,
// the resident memory once idle, and a forced rescan's peak and what stays after it; in
// process, the time to answer a key on each pane and a search keystroke.

#include "library/Indexer.h"
#include "support/Fixtures.h"

#include "BenchHarness.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstring>
#include <map>
#include <thread>

using namespace trovan;
using namespace trovan::bench;

namespace {

const std::string kRoot = "/nonexistent/trovan-scale";

// Ten albums of ten tracks per artist; artists named "Artista 000000" on.
void writeCache(const fs::path& file, int tracks) {
    { LibraryStore store(file); } // creates the table
    sqlite3* db = nullptr;
    if (sqlite3_open(file.c_str(), &db) != SQLITE_OK) throw std::runtime_error("cannot open");
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO tracks(path, mtime, size, title, artist, album_artist, album, "
                       "genre, year, track, disc, duration_ms, codec, sample_rate, bitrate, "
                       "channels) VALUES(?,1700000000.5,?,?,?,'',?,'Rock',?,?,1,?,'FLAC',44100,"
                       "900,2)",
                       -1, &insert, nullptr);
    char artist[32], album[48], title[64];
    for (int i = 0; i < tracks; ++i) {
        const int a = i / 100, b = i / 10 % 10, t = i % 10 + 1;
        std::snprintf(artist, sizeof artist, "Artista %06d", a);
        std::snprintf(album, sizeof album, "Disco %d de %s", b, artist);
        std::snprintf(title, sizeof title, "Canción número %d del disco %d", t, b);
        const std::string path =
            kRoot + "/" + artist + "/" + album + "/" + std::to_string(t) + " " + title + ".flac";
        sqlite3_bind_text(insert, 1, path.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_int64(insert, 2, 30'000'000 + i);
        sqlite3_bind_text(insert, 3, title, -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 4, artist, -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 5, album, -1, SQLITE_TRANSIENT);
        sqlite3_bind_int(insert, 6, 1960 + b);
        sqlite3_bind_int(insert, 7, t);
        sqlite3_bind_int(insert, 8, 180'000 + i % 1000);
        if (sqlite3_step(insert) != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db));
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);
}

// A data folder with the generated cache, plus a music folder holding one real track
// (already cached) so that a forced rescan has something to read and reloads.
// With TROVAN_BENCH_KEEP set, the folders are made there and reused by later runs.
const fs::path& cachedHome(int tracks) {
    static std::map<int, fs::path> homes;
    auto& home = homes[tracks];
    if (!home.empty()) return home;
    const char* keep = std::getenv("TROVAN_BENCH_KEEP");
    const fs::path dir =
        (keep ? fs::path(keep) : fixtures::sharedDir()) / ("scale-" + std::to_string(tracks));
    if (keep && fs::exists(dir / "config.json")) return home = dir;
    fs::create_directories(dir / "music");
    fixtures::Tone tone;
    tone.seconds = 1;
    tone.tags = {{"ARTIST", {"Banco"}}, {"TITLE", {"Prueba"}}};
    fixtures::copyTo(fixtures::cached("scale-one.flac", tone), dir / "music", "one.flac");
    writeCache(dir / "library.sqlite", tracks);
    Settings settings;
    settings.roots = {kRoot, (dir / "music").string()};
    {
        LibraryStore store(dir / "library.sqlite");
        Indexer::run(settings.roots, store, false);
        store.close();
    }
    SettingsStore(dir / "config.json").save(settings);
    home = dir;
    return home;
}

// A line of /proc/<pid>/status, in megabytes ("VmRSS", "VmHWM").
double statusMB(pid_t pid, const std::string& field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(field + ":", 0) == 0)
            return std::atof(line.c_str() + field.size() + 1) / 1024;
    return 0;
}

const std::string kFrameEnd = "\x1b[?2026l";
const std::string kFirstArtist = "Artista 000000";
const std::string kScanDone = "Biblioteca al día";

void BM_StartOnLargeCache(benchmark::State& state) {
    const fs::path& home = cachedHome(static_cast<int>(state.range(0)));
    std::map<std::string, std::vector<double>> figures;
    for (auto _ : state) {
        Running app(home, {});
        auto first = app.waitFor(kFrameEnd, std::chrono::seconds(10));
        const double firstCpu = app.mainThreadCpuSeconds();
        auto shown = app.waitFor(kFirstArtist, std::chrono::seconds(60));
        const double shownCpu = app.cpuSeconds();
        if (!first || !shown || !app.waitFor(kScanDone, std::chrono::seconds(60))) {
            state.SkipWithError("the program did not draw the library");
            return;
        }
        std::this_thread::sleep_for(std::chrono::seconds(2));
        figures["first_frame_ms"].push_back(1000 * *first);
        figures["first_frame_cpu_ms"].push_back(1000 * firstCpu);
        figures["library_shown_ms"].push_back(1000 * *shown);
        figures["library_shown_cpu_ms"].push_back(1000 * shownCpu);
        figures["idle_rss_MB"].push_back(statusMB(app.pid(), "VmRSS"));
        state.SetIterationTime(*shown);
    }
    for (auto& [name, values] : figures) { // medians
        std::sort(values.begin(), values.end());
        state.counters[name] = values[values.size() / 2];
    }
}
BENCHMARK(BM_StartOnLargeCache)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

// The real program, idle on the loaded library: after the start-up rescan's summary has
// gone away. False (the benchmark skipped) when no summary comes.
bool settled(Running& app, benchmark::State& state) {
    if (!app.waitFor(kScanDone, std::chrono::seconds(60))) {
        state.SkipWithError("no scan summary");
        return false;
    }
    std::this_thread::sleep_for(std::chrono::seconds(5));
    app.drain(std::chrono::milliseconds(100));
    return true;
}

// The real program, idle on the loaded library: from sending a key to the end of the
// frame that answers it, on each pane and for search keystrokes (median and slowest).
void BM_KeysOnTerminal(benchmark::State& state) {
    const fs::path& home = cachedHome(static_cast<int>(state.range(0)));
    const std::string down = "\x1b[B", up = "\x1b[A", tab = "\t", right = "\x1b[C", left = "\x1b[D",
                      backspace = "\x7f";
    for (auto _ : state) {
        Running app(home, {});
        if (!settled(app, state)) return;
        double slowest = 0;
        auto answer = [&](const std::string& key, const std::string& name) {
            std::vector<double> ms;
            for (int i = 0; i < 20; ++i) {
                const std::string& k = name == "search" ? (i < 10 ? key : backspace)
                                                        : (i % 2 ? key
                                                                 : (key == down   ? up
                                                                    : key == up   ? down
                                                                    : key == left ? right
                                                                                  : left));
                app.skipPending(std::chrono::milliseconds(30));
                const auto t0 = Clock::now();
                app.send(k);
                if (!app.waitFor(kFrameEnd, std::chrono::seconds(5))) return;
                ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
            }
            std::sort(ms.begin(), ms.end());
            state.counters[name + "_ms"] = ms[ms.size() / 2];
            slowest = std::max(slowest, ms.back());
        };
        answer(down, "artists");
        app.send(tab);
        answer(down, "library");
        app.send(tab);
        answer(left, "player");
        app.send(tab);
        app.send("/");
        answer("9", "search");
        state.counters["slowest_ms"] = slowest;
        state.SetIterationTime(1);
    }
}
BENCHMARK(BM_KeysOnTerminal)->Arg(1'000'000)->UseManualTime()->Iterations(1);

// A forced rescan: every cached track is compared, the one real file reread, and the
// library reloaded beside the one on screen. Peak and resident memory after it.
void BM_ForcedRescan(benchmark::State& state) {
    const fs::path& home = cachedHome(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        Running app(home, {});
        if (!settled(app, state)) return;
        const double before = statusMB(app.pid(), "VmRSS");
        std::ofstream(("/proc/" + std::to_string(app.pid()) + "/clear_refs").c_str()) << "5";
        const auto t0 = Clock::now();
        app.send(":reindexar!\r");
        if (!app.waitFor(kScanDone, std::chrono::seconds(60))) {
            state.SkipWithError("no rescan summary");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        std::this_thread::sleep_for(std::chrono::seconds(2));
        state.counters["rss_before_MB"] = before;
        state.counters["peak_MB"] = statusMB(app.pid(), "VmHWM");
        state.counters["rss_after_MB"] = statusMB(app.pid(), "VmRSS");
    }
}
BENCHMARK(BM_ForcedRescan)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// A first scan of 100,000 files (100 links to one small tagged file in each folder), then
// `q`: the write-ahead log left beside the cache, which the next start would replay.
void BM_FirstScanThenQuit(benchmark::State& state) {
    const fs::path base = fixtures::sharedDir() / "first-scan";
    const fs::path music = base / "music";
    if (!fs::exists(music)) {
        fixtures::Tone tone;
        tone.seconds = 0.1;
        tone.tags = {{"ARTIST", {"Banco"}}, {"ALBUM", {"Medidas"}}, {"TITLE", {"Corta"}}};
        const fs::path one = fixtures::cached("scale-short.flac", tone);
        for (int f = 0; f < 1000; ++f) {
            const fs::path folder = music / ("carpeta " + std::to_string(f));
            fs::create_directories(folder);
            fs::copy_file(one, folder / "0.flac"); // a file takes only so many links
            for (int i = 1; i < 100; ++i)
                fs::create_hard_link(folder / "0.flac", folder / (std::to_string(i) + ".flac"));
        }
    }
    for (auto _ : state) {
        const fs::path home = base / "home";
        fs::remove_all(home);
        fs::create_directories(home);
        const auto t0 = Clock::now();
        {
            Running app(home, {music.string()});
            if (!app.waitFor(kScanDone, std::chrono::minutes(15))) {
                state.SkipWithError("the scan did not finish");
                return;
            }
            state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        } // sends q and waits for the program to leave
        std::error_code ec;
        const auto wal = fs::file_size(home / "library.sqlite-wal", ec);
        state.counters["wal_bytes_after_quit"] = ec ? 0.0 : static_cast<double>(wal);
        state.counters["cache_MB"] =
            static_cast<double>(fs::file_size(home / "library.sqlite")) / 1048576.0;
    }
}
BENCHMARK(BM_FirstScanThenQuit)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

// Where the start-up's time goes: reading the cache into the compact table, then
// grouping it into the index (what a reload does off the main thread).
void BM_LoadAndIndex(benchmark::State& state) {
    LibraryStore store(cachedHome(static_cast<int>(state.range(0))) / "library.sqlite");
    std::vector<double> load, index;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        auto table = store.loadTable();
        const auto t1 = Clock::now();
        LibraryIndex built(std::move(table));
        const auto t2 = Clock::now();
        benchmark::DoNotOptimize(built);
        load.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        index.push_back(std::chrono::duration<double, std::milli>(t2 - t1).count());
    }
    std::sort(load.begin(), load.end());
    std::sort(index.begin(), index.end());
    state.counters["load_ms"] = load[load.size() / 2];
    state.counters["index_ms"] = index[index.size() / 2];
}
BENCHMARK(BM_LoadAndIndex)->Arg(1'000'000)->Iterations(3)->Unit(benchmark::kMillisecond);

// One key and the frame it draws, on the loaded library; covers of the newly shown
// artist are decoded (and fail: the files do not exist) outside the timing.
void answerKeys(benchmark::State& state, const std::vector<Key>& setup,
                const std::vector<Key>& cycle) {
    InProcess app(cachedHome(static_cast<int>(state.range(0))));
    if (app.controller->state().index.trackCount < state.range(0)) {
        state.SkipWithError("library not loaded");
        return;
    }
    for (const auto& k : setup)
        app.controller->handleKey(k);
    app.frame();
    app.settle();
    std::size_t n = 0;
    for (auto _ : state) {
        app.controller->handleKey(cycle[n++ % cycle.size()]);
        benchmark::DoNotOptimize(app.frame());
        state.PauseTiming();
        app.settle();
        state.ResumeTiming();
    }
}

// Down twenty times, then up twenty times, so the cursor stays in the same region.
std::vector<Key> downsAndUps() {
    std::vector<Key> keys(20, Key(Key::Kind::down));
    keys.insert(keys.end(), 20, Key(Key::Kind::up));
    return keys;
}

void BM_KeyArtistPane(benchmark::State& state) {
    answerKeys(state, {}, downsAndUps());
}
void BM_KeyLibraryPane(benchmark::State& state) {
    answerKeys(state, {Key(Key::Kind::tab)}, downsAndUps());
}
void BM_KeyPlayerPane(benchmark::State& state) {
    answerKeys(state, {Key(Key::Kind::tab), Key(Key::Kind::tab)},
               {Key(Key::Kind::left), Key(Key::Kind::right)});
}
// Typing an artist near the end of the list, then deleting it, one key at a time.
void BM_SearchKeystroke(benchmark::State& state) {
    std::vector<Key> keys;
    char name[32];
    std::snprintf(name, sizeof name, "artista %06d", static_cast<int>(state.range(0) / 100 - 1));
    for (const char* c = name; *c; ++c)
        keys.push_back(Key::character(std::string(1, *c)));
    keys.insert(keys.end(), std::strlen(name), Key(Key::Kind::backspace));
    answerKeys(state, {Key::character("/")}, keys);
}
BENCHMARK(BM_KeyArtistPane)->Arg(1'000'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KeyLibraryPane)->Arg(1'000'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KeyPlayerPane)->Arg(1'000'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SearchKeystroke)->Arg(1'000'000)->Unit(benchmark::kMicrosecond);

} // namespace
