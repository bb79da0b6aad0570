// SPDX-License-Identifier: GPL-3.0-or-later
// Playback costs: decoding plus equalizing whole files, one output callback with
// every band active, and the CPU the engine takes while playing in real time.

#include "config/EQPreset.h"
#include "media/AudioDecoder.h"
#include "playback/AudioEngine.h"
#include "playback/Equalizer.h"
#include "playback/NullOutput.h"
#include "support/Fixtures.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <deque>
#include <mutex>
#include <sys/resource.h>
#include <thread>

namespace {

using namespace trovan;

constexpr double fileSeconds = 30.0;

std::string fixture(fixtures::Format format) {
    fixtures::Tone t;
    t.format = format;
    t.wave = fixtures::Wave::noise; // keeps the lossless decoder honest
    t.seconds = fileSeconds;
    return fixtures::cached("bench-30s." + fixtures::extension(format), t).string();
}

std::vector<float> rockGains() {
    return EQPreset::builtIn()[1].gains;
}

void decodeAndEqualize(benchmark::State& state, fixtures::Format format) {
    if (!fixtures::available()) {
        state.SkipWithError("ffmpeg missing");
        return;
    }
    auto path = fixture(format);
    std::vector<float> chunk(4096 * 2);
    int64_t frames = 0;
    for (auto _ : state) {
        AudioDecoder decoder(path);
        Equalizer eq;
        eq.apply(rockGains(), true);
        eq.prepare(decoder.sampleRate(), decoder.outputChannels());
        while (std::size_t n = decoder.read(chunk.data(), 4096)) {
            eq.process(chunk.data(), n);
            frames += static_cast<int64_t>(n);
        }
        benchmark::DoNotOptimize(chunk.data());
    }
    state.SetItemsProcessed(frames);
    // Seconds of audio per second of CPU: how many times faster than real time.
    state.counters["x_realtime"] =
        benchmark::Counter(static_cast<double>(frames) / 44100.0, benchmark::Counter::kIsRate);
}

void BM_DecodeAndEqualizeFlac(benchmark::State& state) {
    decodeAndEqualize(state, fixtures::Format::flac);
}
void BM_DecodeAndEqualizeMp3(benchmark::State& state) {
    decodeAndEqualize(state, fixtures::Format::mp3);
}
BENCHMARK(BM_DecodeAndEqualizeFlac)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeAndEqualizeMp3)->Unit(benchmark::kMillisecond);

void BM_EqualizerBlock512(benchmark::State& state) {
    Equalizer eq;
    std::vector<float> gains = {5, -4, 3, -2, 1, -1, 2, -3, 4, -5}; // every band active
    eq.apply(gains, true);
    eq.prepare(44100, 2);
    std::vector<float> block(512 * 2);
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<float>(i % 97) / 97.0f;
    for (auto _ : state) {
        eq.process(block.data(), 512);
        benchmark::DoNotOptimize(block.data());
    }
    state.SetItemsProcessed(state.iterations() * 512);
}
BENCHMARK(BM_EqualizerBlock512);

// The whole output callback: ring read, ten-band equalizer, volume.
void BM_RenderCallback512(benchmark::State& state) {
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
    engine.load(fixture(fixtures::Format::flac));
    engine.equalizer().apply({5, -4, 3, -2, 1, -1, 2, -3, 4, -5}, true);
    engine.setVolume(0.8f);
    engine.play();
    int blocks = 0;
    for (auto _ : state) {
        if (++blocks % 16 == 0) {
            state.PauseTiming();
            if (engine.currentTime() > fileSeconds - 2) engine.seek(0);
            engine.waitUntilBuffered(std::chrono::seconds(5));
            state.ResumeTiming();
        }
        output->advance(512);
    }
    state.SetItemsProcessed(state.iterations() * 512);
}
BENCHMARK(BM_RenderCallback512);

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto sec = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return sec(usage.ru_utime) + sec(usage.ru_stime);
}

// Whole engine (decoder thread, real-time null output, equalizer) playing a FLAC
// for its 30 s: share of one core it used.
void BM_EngineCpuWhilePlaying30s(benchmark::State& state) {
    if (!fixtures::available()) {
        state.SkipWithError("ffmpeg missing");
        return;
    }
    auto path = fixture(fixtures::Format::flac);
    double share = 0;
    for (auto _ : state) {
        std::mutex mutex;
        std::deque<AudioEngine::Task> tasks;
        AudioEngine engine(
            [&](AudioEngine::Task t) {
                std::lock_guard lock(mutex);
                tasks.push_back(std::move(t));
            },
            [](const OutputFormat& f, AudioRenderer& r, OutputEvents) {
                return std::make_unique<NullOutput>(f, r, NullOutput::Clock::realTime, 1024);
            });
        engine.equalizer().apply(rockGains(), true);
        engine.load(path);
        double cpuBefore = cpuSeconds();
        auto wallBefore = std::chrono::steady_clock::now();
        engine.play();
        std::this_thread::sleep_for(std::chrono::duration<double>(fileSeconds));
        double wall =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count();
        share = (cpuSeconds() - cpuBefore) / wall;
        engine.pause();
    }
    state.counters["cpu_percent_of_core"] = share * 100;
}
BENCHMARK(BM_EngineCpuWhilePlaying30s)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace
