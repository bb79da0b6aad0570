// SPDX-License-Identifier: GPL-3.0-or-later
// Writing a new cover into 1,000 files of about 5 MB each (FLAC), in files per second:
// the program's checked write (copy, save, verify the tags, the picture and the audio
// bytes, sync, rename, sync the folder) beside TagLib's plain in-place save of the same
// change; and the checked write of a new title. The checked writes run with two files in
// hand (the program's way) and with one. Run each a few times; the counters give the rate on
// wall time, and the CPU time is the whole process's.
//
// TROVAN_BENCH_TAG_FILES overrides the number of files (for a disk short of 5 GB).

#include "media/TagLibFile.h"
#include "support/Fixtures.h"
#include "tags/TagEditor.h"

#include <benchmark/benchmark.h>

#include <cstdlib>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;

namespace {

int fileCount() {
    const char* n = std::getenv("TROVAN_BENCH_TAG_FILES");
    return n ? std::max(1, std::atoi(n)) : 1000;
}

// The files, generated once per process: one 5 MB FLAC copied.
const std::vector<std::string>& files() {
    static fx::TempDir dir("trovan-bench-tags");
    static std::vector<std::string> paths = [] {
        fx::Tone tone;
        tone.wave = fx::Wave::noise;
        tone.seconds = 28; // noise hardly compresses: about 5 MB
        tone.tags = {{"TITLE", {"Pista"}}, {"ARTIST", {"Alguien"}}};
        tone.covers = {fx::Cover{}};
        const fs::path source = fx::write(dir.path(), "fuente.flac", tone);
        std::vector<std::string> out;
        const fs::path music = dir.subdir("music");
        for (int i = 0; i < fileCount(); ++i)
            out.push_back(fx::copyTo(source, music, std::to_string(i) + ".flac").string());
        return out;
    }();
    return paths;
}

// A new cover every time, larger than the last by more than the padding TagLib leaves
// (1 % of the file), so that each run really changes the files and the tags outgrow
// their padding: the audio has to move. Incompressible bytes stand in for JPEG data.
Picture cover(int run) {
    std::vector<std::uint8_t> data(256 * 1024 + static_cast<std::size_t>(run) * 64 * 1024);
    std::uint32_t x = 2463534242u + static_cast<std::uint32_t>(run);
    for (auto& b : data) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<std::uint8_t>(x);
    }
    data[0] = 0xff, data[1] = 0xd8, data[2] = 0xff;
    return Picture{std::move(data), "image/jpeg"};
}

void BM_CheckedCoverWrite(benchmark::State& state) {
    const auto& paths = files();
    TagEditor editor(nullptr);
    editor.setWorkers(static_cast<std::size_t>(state.range(0)));
    int run = 0;
    std::size_t failed = 0;
    for (auto _ : state) {
        auto result = editor.setPicture(cover(run++), paths);
        failed += result.failed.size();
    }
    if (failed) state.SkipWithError("some writes failed");
    state.counters["files/s"] = benchmark::Counter(
        static_cast<double>(paths.size()) * state.iterations(), benchmark::Counter::kIsRate);
}

// The title changed through a patch, as the form and the tag document write it: only the
// key edited is touched in each file.
void BM_CheckedTitleWrite(benchmark::State& state) {
    const auto& paths = files();
    TagEditor editor(nullptr);
    editor.setWorkers(static_cast<std::size_t>(state.range(0)));
    int run = 0;
    std::size_t failed = 0;
    for (auto _ : state) {
        TagPatch patch;
        patch.changes["TITLE"] = {"Título " + std::to_string(run++)};
        failed += editor.apply(patch, paths).failed.size();
    }
    if (failed) state.SkipWithError("some writes failed");
    state.counters["files/s"] = benchmark::Counter(
        static_cast<double>(paths.size()) * state.iterations(), benchmark::Counter::kIsRate);
}

void BM_InPlaceTagLibSave(benchmark::State& state) {
    const auto& paths = files();
    int run = 3; // after the checked runs: the covers keep growing
    for (auto _ : state) {
        const Picture picture = cover(run++);
        for (const auto& path : paths) {
            auto file = TagLibFile::open(path);
            if (!file || !file->setPicture(picture) || !file->save())
                state.SkipWithError("save failed");
        }
    }
    state.counters["files/s"] = benchmark::Counter(
        static_cast<double>(paths.size()) * state.iterations(), benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(BM_CheckedCoverWrite)
    ->ArgName("workers")
    ->Arg(2)
    ->Arg(1)
    ->Iterations(1)
    ->Repetitions(3)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kSecond);
BENCHMARK(BM_CheckedTitleWrite)
    ->ArgName("workers")
    ->Arg(2)
    ->Arg(1)
    ->Iterations(1)
    ->Repetitions(3)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kSecond);
BENCHMARK(BM_InPlaceTagLibSave)
    ->Iterations(1)
    ->Repetitions(3)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kSecond);
