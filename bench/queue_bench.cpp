// SPDX-License-Identifier: GPL-3.0-or-later
// The queue at 100,000 entries: adding an artist, moving and removing an entry (each with
// the desktop's track list and the snapshot the queue file is written from), drawing the
// queue view; play lists of 50,000 entries read and written; the kept queue's size.

#include "config/AppPaths.h"
#include "library/LibraryIndex.h"
#include "library/Playlist.h"
#include "library/QueueFile.h"
#include "playback/AudioEngine.h"
#include "playback/NowPlayingBridge.h"
#include "playback/NullOutput.h"
#include "playback/PlaybackController.h"
#include "ui/Layout.h"
#include "ui/Screen.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <unistd.h>

using namespace trovan;
namespace fs = std::filesystem;

namespace {

constexpr int kQueue = 100000;
constexpr int kList = 50000;

std::string pathOf(int i) {
    return "/home/usuario/Música/Artista " + std::to_string(i / 200) + "/Álbum " +
           std::to_string(i / 12) + "/" + std::to_string(i % 12 + 1) + " Canción número " +
           std::to_string(i) + ".flac";
}

const std::vector<std::string>& paths() {
    static const std::vector<std::string> all = [] {
        std::vector<std::string> p;
        for (int i = 0; i < kQueue; ++i)
            p.push_back(pathOf(i));
        return p;
    }();
    return all;
}

const LibraryIndex& library() {
    static const LibraryIndex index = [] {
        std::vector<Track> tracks;
        for (int i = 0; i < kQueue; ++i) {
            Track t;
            t.path = pathOf(i);
            t.title = "Canción número " + std::to_string(i);
            t.artist = "Artista " + std::to_string(i / 200);
            t.album = "Álbum " + std::to_string(i / 12);
            t.trackNumber = i % 12 + 1;
            t.durationMs = 180000 + i % 60000;
            tracks.push_back(std::move(t));
        }
        return LibraryIndex(tracks);
    }();
    return index;
}

// A controller whose engine never opens a device, with the library's lengths and the
// bridge the program updates after every edit.
struct QueueRig {
    QueueRig()
        : controller(std::make_unique<AudioEngine>(
              [](AudioEngine::Task) {},
              [](const OutputFormat& f, AudioRenderer& r, OutputEvents) {
                  return std::make_unique<NullOutput>(f, r, NullOutput::Clock::virtualClock, 64);
              })),
          bridge(NowPlayingBridge::Environment{}) {
        controller.durationOf = [](const std::string& path) -> int64_t {
            const TrackTable& table = library().table();
            auto id = table.find(path);
            return id ? table.durationMs(*id) : 0;
        };
        controller.onQueueChange = [this] { bridge.updateQueue(controller.queue()); };
        controller.enqueue(paths(), false);
    }
    PlaybackController controller;
    NowPlayingBridge bridge;
};

void BM_QueueAddArtist(benchmark::State& st) {
    QueueRig rig;
    const std::vector<std::string> artist(paths().begin(), paths().begin() + 200);
    for (auto _ : st) {
        rig.controller.enqueue(artist, true);
        st.PauseTiming();
        rig.controller.clearUpcoming(); // nothing is current: back to empty
        rig.controller.enqueue(paths(), false);
        st.ResumeTiming();
    }
    st.counters["queue"] = kQueue;
}

void BM_QueueMoveEntry(benchmark::State& st) {
    QueueRig rig;
    int d = 1;
    for (auto _ : st) {
        rig.controller.moveAt(kQueue / 2, d);
        d = -d;
    }
}

void BM_QueueRemoveEntry(benchmark::State& st) {
    QueueRig rig;
    for (auto _ : st) {
        rig.controller.removeAt(kQueue / 2);
        st.PauseTiming();
        rig.controller.enqueue({pathOf(7)}, false);
        st.ResumeTiming();
    }
}

// What the queue file is written from, copied on the main thread once edits have been
// quiet for a second (the writing itself is done off it).
void BM_QueueSnapshotForSave(benchmark::State& st) {
    QueueRig rig;
    for (auto _ : st) {
        SavedQueue saved;
        saved.paths = rig.controller.queue().paths;
        saved.position = rig.controller.queue().position;
        benchmark::DoNotOptimize(saved.paths.data());
    }
}

void BM_QueueOpenView(benchmark::State& st) {
    QueueRig rig;
    const Layout layout(Size{100, 40});
    AppState state{Settings{}};
    state.index = library();
    state.queue = &rig.controller.queue();
    state.overlay = Overlay::queue();
    state.queueView.cursor = kQueue / 2;
    state.queueView.offset = kQueue / 2 - 1;
    for (auto _ : st) {
        Frame f = Screen::compose(state, layout, 10.0);
        benchmark::DoNotOptimize(f.buffer.cells().data());
    }
}

// A folder of 50,000 empty files and a list naming them, half relative.
struct ListFolder {
    ListFolder() {
        const char* tmp = std::getenv("TMPDIR");
        root = fs::path(tmp && *tmp ? tmp : "/tmp") /
               ("trovan-queue-bench-" + std::to_string(getpid()));
        for (int i = 0; i < kList; ++i) {
            const fs::path f = root / "music" / ("a" + std::to_string(i / 100)) /
                               (std::to_string(i) + " canción.flac");
            fs::create_directories(f.parent_path());
            std::ofstream(f) << "";
            entries.push_back({f.string(), "Artista", "Canción " + std::to_string(i), 200000});
        }
        text = "\xEF\xBB\xBF" + Playlist::write(entries, root);
    }
    ~ListFolder() { fs::remove_all(root); }
    fs::path root;
    std::vector<PlaylistEntry> entries;
    std::string text;
};

ListFolder& listFolder() {
    static ListFolder folder;
    return folder;
}

void BM_LoadM3u8_50k(benchmark::State& st) {
    ListFolder& l = listFolder();
    const fs::path file = l.root / "lista.m3u8";
    std::ofstream(file, std::ios::binary) << l.text;
    std::size_t found = 0;
    for (auto _ : st) {
        std::ifstream in(file, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        auto result =
            Playlist::read(bytes, Playlist::Format::m3u, l.root, [](const std::string& p) {
                std::error_code ec;
                return fs::is_regular_file(p, ec);
            });
        found = result.paths.size();
    }
    if (found != kList) st.SkipWithError("entries missing");
    st.counters["entries"] = static_cast<double>(found);
}

void BM_SaveM3u8_50k(benchmark::State& st) {
    ListFolder& l = listFolder();
    const fs::path file = l.root / "guardada.m3u8";
    for (auto _ : st)
        if (!AppPaths::writeAtomically(file, Playlist::write(l.entries, std::nullopt)))
            st.SkipWithError("write failed");
    st.counters["bytes"] = static_cast<double>(fs::file_size(file));
}

void BM_QueueFile_100k(benchmark::State& st) {
    SavedQueue q;
    q.paths = paths();
    q.position = 4321;
    q.seconds = 61.5;
    std::size_t size = 0;
    for (auto _ : st) {
        const std::string bytes = QueueFile::encode(q);
        size = bytes.size();
        benchmark::DoNotOptimize(bytes.data());
    }
    st.counters["MB"] = static_cast<double>(size) / 1e6;
}

void BM_QueueFileRead_100k(benchmark::State& st) {
    SavedQueue q;
    q.paths = paths();
    const std::string bytes = QueueFile::encode(q);
    for (auto _ : st) {
        auto d = QueueFile::decode(bytes);
        if (d.queue.paths.size() != kQueue) st.SkipWithError("entries lost");
    }
}

} // namespace

BENCHMARK(BM_QueueAddArtist)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_QueueMoveEntry)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_QueueRemoveEntry)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(BM_QueueSnapshotForSave)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(BM_QueueOpenView)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_LoadM3u8_50k)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_SaveM3u8_50k)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_QueueFile_100k)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_QueueFileRead_100k)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
