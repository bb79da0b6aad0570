#pragma once
// Drives an AudioEngine deterministically: outputs run on a virtual clock that the
// test advances, and everything the engine posts back waits in a queue until the
// test runs it.

#include "playback/AudioEngine.h"
#include "playback/NullOutput.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace trovan::testing {

class TaskQueue {
public:
    AudioEngine::Poster poster() {
        return [this](AudioEngine::Task task) {
            {
                std::lock_guard lock(mutex_);
                tasks_.push_back(std::move(task));
            }
            ready_.notify_all();
        };
    }

    // Runs what is queued now, on this thread; returns how many ran.
    std::size_t runPending() {
        std::deque<AudioEngine::Task> batch;
        {
            std::lock_guard lock(mutex_);
            batch.swap(tasks_);
        }
        for (auto& task : batch)
            task();
        return batch.size();
    }

    bool waitForTask(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        return ready_.wait_for(lock, timeout, [this] { return !tasks_.empty(); });
    }

    std::size_t size() {
        std::lock_guard lock(mutex_);
        return tasks_.size();
    }

private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<AudioEngine::Task> tasks_;
};

// Hands out virtual-clock null outputs and remembers them.
class VirtualOutputs {
public:
    OutputFactory factory() {
        return [this](const OutputFormat& format, AudioRenderer& renderer,
                      OutputEvents events) -> std::unique_ptr<AudioOutput> {
            if (failNext) {
                failNext = false;
                return nullptr;
            }
            auto out = std::make_unique<NullOutput>(format, renderer,
                                                    NullOutput::Clock::virtualClock, 512);
            current = out.get();
            formats.push_back(format);
            events_ = std::move(events);
            return out;
        };
    }

    std::size_t created() const { return formats.size(); }
    void deviceChanged() { events_.deviceChanged(); }

    NullOutput* current = nullptr; // the latest one; owned by the engine
    std::vector<OutputFormat> formats;
    bool failNext = false;

private:
    OutputEvents events_;
};

// Plays `frames` frames through the current virtual output, never letting the
// callback outrun the decoder.
inline void advance(AudioEngine& engine, VirtualOutputs& outputs, std::size_t frames) {
    while (frames > 0) {
        engine.waitUntilBuffered(std::chrono::seconds(10));
        std::size_t n = std::min<std::size_t>(frames, 512);
        outputs.current->advance(n);
        frames -= n;
    }
}

inline void advanceSeconds(AudioEngine& engine, VirtualOutputs& outputs, double seconds) {
    advance(engine, outputs,
            static_cast<std::size_t>(seconds * outputs.current->format().sampleRate + 0.5));
}

} // namespace trovan::testing
