// SPDX-License-Identifier: GPL-3.0-or-later
// Loudness costs: :analyze's speed in times real time on both cores, the output callback
// with ReplayGain, the limiter and a crossfade all working, and the migration of a
// version-1 cache of 100,000 tracks before the library can be shown.

#include "library/LibraryStore.h"
#include "media/AudioDecoder.h"
#include "playback/AudioEngine.h"
#include "playback/NullOutput.h"
#include "support/Fixtures.h"
#include "tags/LoudnessAnalysis.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <sys/resource.h>
#include <thread>

namespace {

using namespace trovan;

constexpr double fileSeconds = 30.0;

std::string noise(int n) {
    fixtures::Tone t;
    t.wave = fixtures::Wave::noise; // keeps the lossless decoder honest
    t.seconds = fileSeconds;
    t.frequency = 440 + n;
    return fixtures::cached("bench-loud-" + std::to_string(n) + ".flac", t).string();
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto sec = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return sec(usage.ru_utime) + sec(usage.ru_stime);
}

// Eight 30 s FLAC files measured two at a time, as the worker pool does on two cores;
// with an album, the joined pass after them.
void analyze(benchmark::State& state, bool album) {
    if (!fixtures::available()) {
        state.SkipWithError("ffmpeg missing");
        return;
    }
    std::vector<std::string> paths;
    for (int i = 0; i < 8; ++i)
        paths.push_back(noise(i));
    double cpu = 0;
    for (auto _ : state) {
        const double before = cpuSeconds();
        std::atomic<std::size_t> next{0};
        auto work = [&] {
            for (std::size_t i; (i = next++) < paths.size();)
                benchmark::DoNotOptimize(LoudnessAnalysis::measure(paths[i]).lufs);
        };
        std::thread other(work);
        work();
        other.join();
        if (album) benchmark::DoNotOptimize(LoudnessAnalysis::measureJoined(paths));
        cpu += cpuSeconds() - before;
    }
    const double audio = fileSeconds * double(paths.size()) * double(state.iterations());
    state.counters["x_realtime"] = benchmark::Counter(audio, benchmark::Counter::kIsRate);
    state.counters["cpu_s"] = cpu / double(state.iterations());
}
void BM_AnalyzeFlacTracksTwoCores(benchmark::State& state) {
    analyze(state, false);
}
void BM_AnalyzeFlacAlbumTwoCores(benchmark::State& state) {
    analyze(state, true);
}
BENCHMARK(BM_AnalyzeFlacTracksTwoCores)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_AnalyzeFlacAlbumTwoCores)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(3);

// One 512-frame period of the callback in the middle of a 12 s crossfade, each track with
// its own gain, loud enough (+18 dB) for the limiter to work on every period.
void BM_RenderPeriodCrossfadeGainLimiter(benchmark::State& state) {
    if (!fixtures::available()) {
        state.SkipWithError("ffmpeg missing");
        return;
    }
    std::mutex mutex;
    std::deque<AudioEngine::Task> tasks;
    NullOutput* output = nullptr;
    AudioEngine engine(
        [&](AudioEngine::Task t) {
            std::lock_guard lock(mutex);
            tasks.push_back(std::move(t));
        },
        [&](const OutputFormat& f, AudioRenderer& r, OutputEvents) {
            auto out = std::make_unique<NullOutput>(f, r, NullOutput::Clock::virtualClock, 512);
            output = out.get();
            return out;
        });
    engine.load(noise(0));
    engine.equalizer().apply({5, -4, 3, -2, 1, -1, 2, -3, 4, -5}, true);
    engine.setVolume(0.8f);
    engine.setGain(8.0f);
    engine.prepareNext(noise(1), {}, {12.0, 6.0f});
    engine.waitUntilPrepared(std::chrono::seconds(10));
    auto runTasks = [&] {
        std::deque<AudioEngine::Task> batch;
        {
            std::lock_guard lock(mutex);
            batch.swap(tasks);
        }
        for (auto& t : batch)
            t();
    };
    runTasks(); // arms the crossfade
    engine.play();
    engine.seek(fileSeconds - 11); // inside the crossfade: both tracks decode and mix
    int blocks = 0;
    for (auto _ : state) {
        if (++blocks % 16 == 0) {
            state.PauseTiming();
            if (blocks % 512 == 0) {
                engine.seek(fileSeconds - 11);
                runTasks();
            }
            engine.waitUntilBuffered(std::chrono::seconds(5));
            state.ResumeTiming();
        }
        output->advance(512);
    }
    state.SetItemsProcessed(state.iterations() * 512);
    state.counters["period_us"] = 512.0 / 44100 * 1e6;
}
BENCHMARK(BM_RenderPeriodCrossfadeGainLimiter);

// Opening a version-1 cache of 100,000 tracks (the columns added in place, every stamp
// cleared) and loading it: the wait before the library is on screen.
void BM_MigrateVersionOneCache100k(benchmark::State& state) {
    fixtures::TempDir dir("trovan-bench-migrate");
    const auto v1 = dir / "v1.sqlite";
    {
        sqlite3* db = nullptr;
        sqlite3_open(v1.c_str(), &db);
        sqlite3_exec(
            db,
            "CREATE TABLE tracks(path TEXT PRIMARY KEY, mtime REAL NOT NULL, size INTEGER "
            "NOT NULL, title TEXT, artist TEXT, album_artist TEXT, album TEXT, genre TEXT,"
            " year INTEGER, track INTEGER, disc INTEGER, duration_ms INTEGER, codec TEXT,"
            " sample_rate INTEGER, bitrate INTEGER, channels INTEGER) WITHOUT ROWID;"
            "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 99999)"
            " INSERT INTO tracks SELECT printf('/m/Artist %03d/Album %05d/%06d Song.flac',"
            " i / 500, i / 12, i), 1700000000.5 + i, 30000000, 'Song ' || i,"
            " 'Artist ' || (i / 500), '', 'Album ' || (i / 12), 'Rock', 2001, i % 12 + 1,"
            " 1, 215000, 'FLAC', 44100, 900, 2 FROM n; PRAGMA user_version = 1;",
            nullptr, nullptr, nullptr);
        sqlite3_close(db);
    }
    std::size_t rows = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const auto copy = dir / "library.sqlite";
        std::filesystem::copy_file(v1, copy, std::filesystem::copy_options::overwrite_existing);
        state.ResumeTiming();
        {
            LibraryStore store(copy);
            rows = store.loadTable().size();
        }
        state.PauseTiming();
        std::filesystem::remove(copy);
        std::filesystem::remove(dir / "library.sqlite-wal");
        std::filesystem::remove(dir / "library.sqlite-shm");
        state.ResumeTiming();
    }
    state.counters["rows"] = double(rows);
}
BENCHMARK(BM_MigrateVersionOneCache100k)->Unit(benchmark::kMillisecond)->Iterations(5);

} // namespace
