#pragma once
// Drives an AudioEngine deterministically: outputs run on a virtual clock that
// the test advances, and everything the engine posts back waits here until the test runs it.

#include "playback/AudioEngine.h"
#include "playback/NullOutput.h"
#include "support/Fixtures.h"

#include <mutex>
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

// Hands out virtual-clock null outputs and remembers what it was asked for.
struct VirtualOutputs {
    OutputFactory factory() {
        return [this](const OutputFormat& format, AudioRenderer& renderer,
                      OutputEvents ev) -> std::unique_ptr<AudioOutput> {
            if (std::exchange(failNext, false)) return nullptr;
            auto out = std::make_unique<NullOutput>(format, renderer,
                                                    NullOutput::Clock::virtualClock, 512);
            current = out.get();
            formats.push_back(format);
            events = std::move(ev);
            return out;
        };
    }

    NullOutput* current = nullptr; // the latest one; owned by the engine
    std::vector<OutputFormat> formats;
    OutputEvents events;
    bool failNext = false;
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

// A generated tone, cached for every test program.
inline std::string tone(const std::string& name, const fixtures::Tone& tone) {
    return fixtures::cached(name, tone).string();
}

} // namespace trovan::testing
