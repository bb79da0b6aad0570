// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Drives an AudioEngine deterministically: outputs run on a virtual clock that
// the test advances, and everything the engine posts back waits here until the test runs it.

#include "playback/AudioEngine.h"
#include "playback/NullOutput.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace trovan::testing {

class TaskQueue {
public:
    AudioEngine::Poster poster() {
        return [this](AudioEngine::Task task) {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        };
    }
    // Runs what is queued now, on this thread; returns how many ran.
    std::size_t runPending() {
        std::unique_lock lock(mutex_);
        auto batch = std::exchange(tasks_, {});
        lock.unlock();
        for (auto& task : batch)
            task();
        return batch.size();
    }
    bool waitForTask() {
        for (int i = 0; i < 1000 && size() == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return size() > 0;
    }
    std::size_t size() {
        std::lock_guard lock(mutex_);
        return tasks_.size();
    }

private:
    std::mutex mutex_;
    std::vector<AudioEngine::Task> tasks_;
};

// Hands out virtual-clock null outputs.
struct VirtualOutputs {
    OutputFactory factory() {
        return [this](const OutputFormat& format, AudioRenderer& renderer,
                      OutputEvents) -> std::unique_ptr<AudioOutput> {
            auto out = std::make_unique<NullOutput>(format, renderer,
                                                    NullOutput::Clock::virtualClock, 512);
            current = out.get();
            return out;
        };
    }

    NullOutput* current = nullptr; // the latest one; owned by the engine
};

// Plays `seconds` through the current output, never letting the callback outrun the decoder.
inline void advanceSeconds(AudioEngine& engine, VirtualOutputs& outputs, double seconds) {
    auto frames = static_cast<std::size_t>(seconds * outputs.current->format().sampleRate + 0.5);
    for (std::size_t n = 0; frames > 0; frames -= n) {
        engine.waitUntilBuffered(std::chrono::seconds(10));
        n = std::min<std::size_t>(frames, 512);
        outputs.current->advance(n);
    }
}

// Plays `seconds` in steps of 10 ms, running what the engine posts after each step.
inline void playFor(AudioEngine& engine, VirtualOutputs& outputs, TaskQueue& tasks,
                    double seconds) {
    for (int i = 0; i < static_cast<int>(seconds * 100 + 0.5); ++i) {
        advanceSeconds(engine, outputs, 0.01);
        tasks.runPending();
    }
}

// Plays one 512-frame block, keeps its left channel and runs what the engine posted.
inline void playBlock(AudioEngine& engine, VirtualOutputs& outputs, TaskQueue& tasks,
                      std::vector<float>& left) {
    ASSERT_TRUE(engine.waitUntilBuffered(std::chrono::seconds(20))) << "decoder stuck";
    outputs.current->advance(512);
    auto block = outputs.current->lastBlock();
    for (std::size_t i = 0; i < block.size(); i += 2)
        left.push_back(block[i]);
    tasks.runPending();
}

// A generated tone, cached for every test program.
inline std::string tone(const std::string& name, const fixtures::Tone& tone) {
    return fixtures::cached(name, tone).string();
}

// One recording cut sample-exactly into tracks: a tone whose pitch wanders (no
// stretch of it repeats, so a lost or doubled frame shows), 0.5 at its peak.
struct CutAlbum {
    static double sample(int64_t frame, int rate) {
        const double t = static_cast<double>(frame) / rate;
        return 0.5 * std::sin(2 * M_PI * 440 * t + 3 * std::sin(2 * M_PI * 0.9 * t));
    }
    // The largest step the tone takes between two frames.
    static double maxStep(int rate) { return 0.5 * 2 * M_PI * (440 + 3 * 0.9) / rate; }

    // Writes frames [from, to) of the recording as dir/name, encoded with ffmpeg's
    // `codec` options ("-c:a flac -f flac").
    static std::string write(const std::filesystem::path& dir, const std::string& name,
                             const std::string& codec, int64_t from, int64_t to, int rate) {
        const std::string expr = "0.5*sin(2*PI*440*t+3*sin(2*PI*0.9*t))";
        const std::string source = "aevalsrc=exprs=" + expr + "|" + expr +
                                   ":s=" + std::to_string(rate) +
                                   ":d=" + std::to_string(to / rate + 1);
        const std::string cut = "atrim=start_sample=" + std::to_string(from) +
                                ":end_sample=" + std::to_string(to) + ",asetpts=N/SR/TB";
        std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v",   "error", "-y", "-f",
                                         "lavfi",  "-i",       source, "-af",   cut};
        std::istringstream words(codec);
        for (std::string w; words >> w;)
            argv.push_back(w);
        auto out = (dir / name).string();
        argv.push_back(out);
        auto r = fixtures::runProcess(argv);
        if (r.status != 0) throw std::runtime_error("ffmpeg failed on " + out + "\n" + r.errors);
        return out;
    }
};

} // namespace trovan::testing
