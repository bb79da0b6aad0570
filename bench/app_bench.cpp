// SPDX-License-Identifier: GPL-3.0-or-later
// How the whole program feels: start-up on a cached library of 100,000 tracks (first
// frame, then the library on screen), the cost of answering a key on that library, and
// what the process costs while paused and while playing. The start-up and idle figures
// come from the real binary on a pseudo-terminal; the key press is measured in process
// (controller, frame composition and the renderer's bytes).

#include "app/App.h"
#include "app/AppController.h"
#include "app/WorkerPool.h"
#include "library/LibraryStore.h"
#include "config/SettingsStore.h"
#include "playback/NullOutput.h"
#include "support/Fixtures.h"
#include "support/SessionBus.h"
#include "terminal/Renderer.h"

#include "BenchHarness.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace trovan;
using namespace trovan::bench;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kArtists = 1000, kAlbums = 10, kTracks = 10; // 100,000 tracks
// A root that does not exist: a rescan keeps every cached track under it.
const std::string kRoot = "/nonexistent/trovan-bench";

std::vector<Track> bigLibrary() {
    std::vector<Track> tracks;
    tracks.reserve(kArtists * kAlbums * kTracks);
    char name[64];
    for (int a = 0; a < kArtists; ++a) {
        std::snprintf(name, sizeof name, "Artista %05d", a);
        const std::string artist = name;
        for (int b = 0; b < kAlbums; ++b) {
            for (int t = 1; t <= kTracks; ++t) {
                Track tr;
                tr.path = kRoot + "/" + artist + "/Disco " + std::to_string(b) + "/" +
                          std::to_string(t) + ".flac";
                tr.mtime = 1;
                tr.size = 1000;
                tr.artist = artist;
                tr.album = "Disco " + std::to_string(b);
                tr.title = "Canción " + std::to_string(t);
                tr.trackNumber = t;
                tr.year = 1990 + b;
                tr.durationMs = 200000;
                tr.codec = "FLAC";
                tracks.push_back(std::move(tr));
            }
        }
    }
    return tracks;
}

// A data folder holding the 100,000-track cache, made once per run.
const fs::path& bigHome() {
    static const fs::path home = [] {
        fs::path dir = fixtures::sharedDir() / "big-home";
        fs::create_directories(dir);
        LibraryStore store(dir / "library.sqlite");
        store.apply(bigLibrary(), {});
        Settings settings;
        settings.roots = {kRoot};
        SettingsStore(dir / "config.json").save(settings);
        return dir;
    }();
    return home;
}

// A data folder and a music folder with one real minute-long track.
const fs::path& smallHome() {
    static const fs::path home = [] {
        fs::path dir = fixtures::sharedDir() / "small-home";
        fs::create_directories(dir / "music");
        fixtures::Tone tone;
        tone.seconds = 60;
        tone.tags = {{"ARTIST", {"Banco"}}, {"TITLE", {"Prueba"}}, {"ALBUM", {"Medidas"}}};
        fixtures::copyTo(fixtures::cached("bench-minute.flac", tone), dir / "music", "minute.flac");
        return dir;
    }();
    return home;
}

const std::string kFrameEnd = "\x1b[?2026l";
// A session bus address where nothing listens.
const std::string kNoBus = "unix:path=/nonexistent/trovan-no-bus";

// True once the program's media player owns its name on the bus at `address`.
bool playerPublished(const std::string& address) {
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    for (int i = 0; i < 100; ++i) {
        const auto r = fixtures::runProcess(
            {"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/",
             "org.freedesktop.DBus.NameHasOwner", "string:org.mpris.MediaPlayer2.trovan"});
        if (r.output.find("boolean true") != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

void BM_StartOnCachedLibrary(benchmark::State& state) {
    const fs::path home = bigHome();
    double firstSum = 0, shownSum = 0, firstCpuSum = 0, shownCpuSum = 0;
    for (auto _ : state) {
        Running app(home, {});
        auto first = app.waitFor(kFrameEnd, std::chrono::seconds(10));
        const double firstCpu = app.mainThreadCpuSeconds();
        auto shown = app.waitFor("Artista 00000", std::chrono::seconds(20));
        const double shownCpu = app.cpuSeconds();
        if (!first || !shown) {
            state.SkipWithError("the program did not draw the library");
            return;
        }
        firstSum += *first;
        shownSum += *shown;
        // On a busy machine the wall times above include waiting for a core; the CPU
        // the program itself used tells what an idle machine would see.
        firstCpuSum += firstCpu;
        shownCpuSum += shownCpu;
        state.SetIterationTime(*shown);
    }
    state.counters["first_frame_ms"] = 1000 * firstSum / static_cast<double>(state.iterations());
    state.counters["library_shown_ms"] = 1000 * shownSum / static_cast<double>(state.iterations());
    state.counters["first_frame_cpu_ms"] =
        1000 * firstCpuSum / static_cast<double>(state.iterations());
    state.counters["library_shown_cpu_ms"] =
        1000 * shownCpuSum / static_cast<double>(state.iterations());
}
BENCHMARK(BM_StartOnCachedLibrary)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

// For comparison: starting the same binary just to print its usage and leave (loading
// its shared libraries is most of it).
void BM_ProcessStartBaseline(benchmark::State& state) {
    for (auto _ : state) {
        const auto t0 = Clock::now();
        const pid_t pid = fork();
        if (pid == 0) {
            int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            execl(TROVAN_BINARY, TROVAN_BINARY, "--help", static_cast<char*>(nullptr));
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
    }
}
BENCHMARK(BM_ProcessStartBaseline)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

// Loading the cache and building the index, as a reload does off the main thread.
void BM_LoadAndIndex100k(benchmark::State& state) {
    LibraryStore store(bigHome() / "library.sqlite");
    double load = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        auto tracks = store.loadTable();
        load += std::chrono::duration<double>(Clock::now() - t0).count();
        LibraryIndex index(std::move(tracks));
        benchmark::DoNotOptimize(index);
    }
    state.counters["load_ms"] = 1000 * load / static_cast<double>(state.iterations());
}
BENCHMARK(BM_LoadAndIndex100k)->Unit(benchmark::kMillisecond);

void keyPresses(benchmark::State& state, bool libraryPane) {
    InProcess app(bigHome());
    if (app.controller->state().index.trackCount != kArtists * kAlbums * kTracks) {
        state.SkipWithError("library not loaded");
        return;
    }
    if (libraryPane) app.controller->handleKey(Key(Key::Kind::tab));
    app.frame();
    int n = 0;
    std::size_t bytes = 0;
    for (auto _ : state) {
        // Down twenty times, then up twenty times, so the cursor stays in the same region.
        app.controller->handleKey(Key((n++ / 20) % 2 ? Key::Kind::up : Key::Kind::down));
        bytes += app.frame().size();
        state.PauseTiming();
        app.settle(); // covers decoded for the artist just shown
        state.ResumeTiming();
    }
    state.counters["bytes_per_frame"] =
        static_cast<double>(bytes) / static_cast<double>(state.iterations());
}
void BM_KeyPressArtistPane(benchmark::State& state) {
    keyPresses(state, false);
}
void BM_KeyPressLibraryPane(benchmark::State& state) {
    keyPresses(state, true);
}
BENCHMARK(BM_KeyPressArtistPane)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KeyPressLibraryPane)->Unit(benchmark::kMicrosecond);

// Waits for the scan of the small home, then plays its one track; false (and the
// benchmark skipped) when either does not happen.
bool playFirstTrack(Running& app, benchmark::State& state) {
    if (!app.waitFor("Biblioteca al día", std::chrono::seconds(20))) {
        state.SkipWithError("no scan summary");
        return false;
    }
    app.send("\r\x1b[B\r");
    if (!app.waitFor("\xE2\x9D\x9A\xE2\x9D\x9A", std::chrono::seconds(10))) { // ❚❚
        state.SkipWithError("did not play");
        return false;
    }
    return true;
}

// Arg 1: with the player published on a private session bus.
void BM_PausedWakeups(benchmark::State& state) {
    const fs::path home = smallHome();
    std::unique_ptr<fixtures::SessionBus> bus;
    if (state.range(0)) bus = std::make_unique<fixtures::SessionBus>();
    for (auto _ : state) {
        Running app(home, {(home / "music").string()}, bus ? bus->address() : kNoBus);
        // Play, then pause, so the audio side has been through a whole cycle.
        if (!playFirstTrack(app, state)) return;
        if (bus && !playerPublished(bus->address())) {
            state.SkipWithError("the player is not on the bus");
            return;
        }
        app.send(" ");
        std::this_thread::sleep_for(std::chrono::seconds(5)); // the status message expires
        app.drain(std::chrono::milliseconds(10));
        const long before = app.switches();
        std::this_thread::sleep_for(std::chrono::seconds(3));
        const long wakeups = app.switches() - before;
        state.SetIterationTime(3);
        state.counters["wakeups_in_3s"] = static_cast<double>(wakeups);
    }
}
BENCHMARK(BM_PausedWakeups)
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

// The first frame with no session bus (arg 0), a private one (1), and one whose socket
// accepts connections but never answers (2): the bus must not delay it.
void BM_FirstFrameAndBus(benchmark::State& state) {
    const fs::path home = fixtures::sharedDir() / "bus-home";
    fs::create_directories(home);
    std::unique_ptr<fixtures::SessionBus> bus;
    std::string address = kNoBus;
    int silent = -1;
    if (state.range(0) == 1) {
        bus = std::make_unique<fixtures::SessionBus>();
        address = bus->address();
    } else if (state.range(0) == 2) {
        const fs::path path = home / "silent-bus";
        fs::remove(path);
        silent = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        if (bind(silent, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(silent, 64) != 0) {
            state.SkipWithError("no socket");
            close(silent);
            return;
        }
        address = "unix:path=" + path.string();
    }
    double sum = 0, cpuSum = 0;
    for (auto _ : state) {
        Running app(home, {}, address);
        auto first = app.waitFor(kFrameEnd, std::chrono::seconds(10));
        const double cpu = app.mainThreadCpuSeconds();
        if (!first) {
            state.SkipWithError("no frame");
            break;
        }
        sum += *first;
        cpuSum += cpu;
        state.SetIterationTime(*first);
    }
    if (silent >= 0) close(silent);
    const double n = static_cast<double>(state.iterations());
    state.counters["first_frame_ms"] = 1000 * sum / n;
    state.counters["first_frame_cpu_ms"] = 1000 * cpuSum / n;
}
BENCHMARK(BM_FirstFrameAndBus)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Iterations(10)
    ->Unit(benchmark::kMillisecond);

// Arg 1: with the player published on a private session bus.
void BM_PlayingCpu(benchmark::State& state) {
    const fs::path home = smallHome();
    std::unique_ptr<fixtures::SessionBus> bus;
    if (state.range(0)) bus = std::make_unique<fixtures::SessionBus>();
    for (auto _ : state) {
        Running app(home, {(home / "music").string()}, bus ? bus->address() : kNoBus);
        if (!playFirstTrack(app, state)) return;
        if (bus && !playerPublished(bus->address())) {
            state.SkipWithError("the player is not on the bus");
            return;
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const double cpu0 = app.cpuSeconds();
        const auto t0 = Clock::now();
        // Keep reading the frames, as a terminal would.
        while (Clock::now() - t0 < std::chrono::seconds(10))
            app.drain(std::chrono::milliseconds(50));
        const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
        const double cpu = app.cpuSeconds() - cpu0;
        state.SetIterationTime(wall);
        state.counters["cpu_percent_of_one_core"] = 100 * cpu / wall;
    }
}
BENCHMARK(BM_PlayingCpu)->Arg(0)->Arg(1)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

} // namespace
