// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "playback/AudioOutput.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace trovan {

// Consumes audio without a device. In real-time mode its own thread pulls one
// block at a time at the format's rate; in virtual-clock mode nothing happens
// until `advance` is called, which renders synchronously on the caller's thread.
class NullOutput : public AudioOutput {
public:
    enum class Clock { realTime, virtualClock };

    NullOutput(const OutputFormat& format, AudioRenderer& renderer, Clock clock,
               std::size_t blockFrames = 512);
    ~NullOutput() override;

    bool start() override;
    void stop() override;
    bool isRunning() const override { return running_.load(); }
    int64_t playedFrames() const override { return played_.load(); }
    const char* kind() const override { return "null"; }
    bool realTime() const override { return clock_ == Clock::realTime; }

    // Virtual clock only: renders `frames` frames (in blocks) if running.
    void advance(std::size_t frames);
    const OutputFormat& format() const { return format_; }
    // The last block rendered, for tests that listen to what came out.
    std::vector<float> lastBlock() const;

private:
    void renderBlock(std::size_t frames);
    void run();

    OutputFormat format_;
    AudioRenderer& renderer_;
    Clock clock_;
    std::size_t blockFrames_;
    std::vector<float> buffer_;
    std::atomic<bool> running_{false};
    std::atomic<int64_t> played_{0};
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool quit_ = false;
    mutable std::mutex lastMutex_;
    std::vector<float> last_;
};

} // namespace trovan
