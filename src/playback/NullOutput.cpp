// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/NullOutput.h"

#include <chrono>

namespace trovan {

NullOutput::NullOutput(const OutputFormat& format, AudioRenderer& renderer, Clock clock,
                       std::size_t blockFrames)
    : format_(format), renderer_(renderer), clock_(clock), blockFrames_(blockFrames),
      buffer_(blockFrames * static_cast<std::size_t>(format.channels)) {}

NullOutput::~NullOutput() {
    stop();
}

bool NullOutput::start() {
    if (running_.load()) return true;
    if (clock_ == Clock::virtualClock) {
        running_ = true;
        return true;
    }
    {
        std::lock_guard lock(mutex_);
        quit_ = false;
    }
    running_ = true;
    thread_ = std::thread([this] { run(); });
    return true;
}

void NullOutput::stop() {
    if (!running_.exchange(false)) return;
    if (thread_.joinable()) {
        {
            std::lock_guard lock(mutex_);
            quit_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
}

void NullOutput::advance(std::size_t frames) {
    while (frames > 0 && running_.load()) {
        std::size_t n = std::min(frames, blockFrames_);
        renderBlock(n);
        frames -= n;
    }
}

std::vector<float> NullOutput::lastBlock() const {
    std::lock_guard lock(lastMutex_);
    return last_;
}

void NullOutput::renderBlock(std::size_t frames) {
    renderer_.render(buffer_.data(), frames);
    played_.fetch_add(static_cast<int64_t>(frames));
    if (clock_ == Clock::virtualClock) {
        std::lock_guard lock(lastMutex_);
        last_.assign(buffer_.begin(),
                     buffer_.begin() + static_cast<std::ptrdiff_t>(frames * format_.channels));
    }
}

void NullOutput::run() {
    using clock = std::chrono::steady_clock;
    const auto period = std::chrono::duration_cast<clock::duration>(
        std::chrono::duration<double>(static_cast<double>(blockFrames_) / format_.sampleRate));
    auto next = clock::now();
    std::unique_lock lock(mutex_);
    while (!quit_) {
        lock.unlock();
        renderBlock(blockFrames_);
        lock.lock();
        next += period;
        // After a long stall (suspend, debugger) do not try to catch up in a burst.
        if (clock::now() - next > std::chrono::milliseconds(200)) next = clock::now();
        wake_.wait_until(lock, next, [this] { return quit_; });
    }
}

} // namespace trovan
