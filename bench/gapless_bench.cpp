// SPDX-License-Identifier: GPL-3.0-or-later
// Gapless playback costs: opening the next track ahead of time (the decoder thread's
// work before a join), and the time from a join reaching the listener to the player
// state naming the new track.

#include "media/AudioDecoder.h"
#include "playback/AudioEngine.h"
#include "playback/NullOutput.h"
#include "playback/PlaybackController.h"
#include "support/Fixtures.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

namespace {

using namespace trovan;
using Clock = std::chrono::steady_clock;

std::string track(fixtures::Format format, double seconds, int index = 0) {
    fixtures::Tone t;
    t.format = format;
    t.seconds = seconds;
    t.frequency = 440 + 110 * index;
    return fixtures::cached("gapless-" + std::to_string(index) + "-" + std::to_string(seconds) +
                                "." + fixtures::extension(format),
                            t)
        .string();
}

// What the decoder thread does to prepare a next track: open the file, read its
// description, and decode the first chunk it will write at the join.
void prepareNext(benchmark::State& state, fixtures::Format format) {
    if (!fixtures::available()) {
        state.SkipWithError("ffmpeg missing");
        return;
    }
    auto path = track(format, 240); // a four-minute song
    std::vector<float> chunk(4096 * 2);
    for (auto _ : state) {
        AudioDecoder decoder(path);
        benchmark::DoNotOptimize(decoder.read(chunk.data(), 4096));
    }
}
void BM_PrepareNextFlac(benchmark::State& state) {
    prepareNext(state, fixtures::Format::flac);
}
void BM_PrepareNextMp3(benchmark::State& state) {
    prepareNext(state, fixtures::Format::mp3);
}
void BM_PrepareNextAacM4a(benchmark::State& state) {
    prepareNext(state, fixtures::Format::aac);
}
BENCHMARK(BM_PrepareNextFlac)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PrepareNextMp3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PrepareNextAacM4a)->Unit(benchmark::kMillisecond);

// A main loop: runs posted tasks as soon as they arrive.
class Loop {
public:
    AudioEngine::Poster poster() {
        return [this](AudioEngine::Task t) {
            {
                std::lock_guard lock(mutex_);
                tasks_.push_back(std::move(t));
            }
            wake_.notify_one();
        };
    }
    void runUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
        const auto deadline = Clock::now() + limit;
        while (!done() && Clock::now() < deadline) {
            std::unique_lock lock(mutex_);
            wake_.wait_for(lock, std::chrono::milliseconds(50), [&] { return !tasks_.empty(); });
            auto batch = std::exchange(tasks_, {});
            lock.unlock();
            for (auto& t : batch)
                t();
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<AudioEngine::Task> tasks_;
};

// From the first frame of the next track leaving a real-time null output to the
// controller publishing the new track: the elapsed time the engine reports at that
// moment (measured on the output's clock, in 64-frame blocks of 1.5 ms).
void BM_JoinToPlayerState(benchmark::State& state) {
    if (!fixtures::available()) {
        state.SkipWithError("ffmpeg missing");
        return;
    }
    std::vector<std::string> album = {track(fixtures::Format::flac, 0.6, 1),
                                      track(fixtures::Format::flac, 0.6, 2)};
    std::vector<double> latencies;
    for (auto _ : state) {
        state.PauseTiming();
        Loop loop;
        PlaybackController controller(std::make_unique<AudioEngine>(
            loop.poster(), [](const OutputFormat& f, AudioRenderer& r, OutputEvents) {
                return std::make_unique<NullOutput>(f, r, NullOutput::Clock::realTime, 64);
            }));
        std::optional<double> latency;
        controller.onChange = [&] {
            const auto& s = controller.state();
            if (!latency && s.track && s.track->path == album[1] && s.isPlaying)
                latency = controller.engine().currentTime();
        };
        controller.play(album, 0);
        loop.runUntil([&] { return !controller.loading(); }, std::chrono::seconds(10));
        state.ResumeTiming();
        loop.runUntil([&] { return latency.has_value(); }, std::chrono::seconds(10));
        state.PauseTiming();
        if (latency) latencies.push_back(*latency * 1000);
        state.ResumeTiming();
    }
    if (latencies.empty()) {
        state.SkipWithError("no join was seen");
        return;
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["join_to_state_ms_median"] = latencies[latencies.size() / 2];
    state.counters["join_to_state_ms_max"] = latencies.back();
}
BENCHMARK(BM_JoinToPlayerState)->Iterations(9)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
