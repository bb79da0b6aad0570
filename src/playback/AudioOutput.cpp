// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/AudioOutput.h"

#include "media/Module.h"
#include "playback/NullOutput.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace trovan {

namespace {

// The cubeb client (and through it the sound server's libraries) is a module loaded
// when the first stream is opened.
using SoundServerEntry = OutputFactory* (*)();

SoundServerEntry soundServer() {
    static const SoundServerEntry entry = [] {
        std::string error;
        return reinterpret_cast<SoundServerEntry>(
            module::load("trovan-cubeb.so", "trovan_sound_server", error));
    }();
    return entry;
}

// The module's stream factory, shared by every output the engine opens and by their
// retry threads: one caller at a time.
class SoundServer {
public:
    std::unique_ptr<AudioOutput> open(const OutputFormat& format, AudioRenderer& renderer,
                                      const OutputEvents& events, std::string& reason) {
        std::lock_guard lock(mutex_);
        if (!factory_)
            if (auto entry = soundServer()) factory_.reset(entry());
        if (!factory_) {
            reason = "falta el módulo de sonido";
            return nullptr;
        }
        OutputEvents inner = events;
        inner.availability = nullptr;
        if (auto out = (*factory_)(format, renderer, inner)) return out;
        reason = "no se puede conectar con el servidor de sonido";
        return nullptr;
    }

private:
    std::mutex mutex_;
    std::unique_ptr<OutputFactory> factory_;
};

// Stands in for the sound server while it cannot be reached: a real-time null output
// plays, and the server is tried again at every start and, while playing, after
// 0.25, 0.5, 1 and then every 2 seconds. Once a stream opens it takes over where the
// null output stopped and the null output is gone for good.
class FallbackOutput final : public AudioOutput {
public:
    FallbackOutput(std::shared_ptr<SoundServer> server, const OutputFormat& format,
                   AudioRenderer& renderer, OutputEvents events)
        : server_(std::move(server)), format_(format), renderer_(renderer),
          events_(std::move(events)), current_(std::make_unique<NullOutput>(
                                          format, renderer, NullOutput::Clock::realTime, 1024)),
          thread_([this] { retryLoop(); }) {}

    ~FallbackOutput() override {
        {
            std::lock_guard lock(mutex_);
            quit_ = true;
        }
        wake_.notify_all();
        thread_.join();
        stop();
    }

    bool start() override {
        tryServer();
        std::lock_guard lock(mutex_);
        if (!current_->start()) return false;
        running_ = true;
        delay_ = firstDelay;
        wake_.notify_all();
        return true;
    }

    void stop() override {
        std::lock_guard lock(mutex_);
        running_ = false;
        current_->stop();
    }

    bool isRunning() const override {
        std::lock_guard lock(mutex_);
        return running_ && current_->isRunning();
    }

    void discard() override {
        std::lock_guard lock(mutex_);
        running_ = false;
        current_->discard();
    }

    int64_t playedFrames() const override {
        std::lock_guard lock(mutex_);
        return base_ + current_->playedFrames();
    }

    const char* kind() const override {
        std::lock_guard lock(mutex_);
        return current_->kind();
    }

private:
    static constexpr std::chrono::milliseconds firstDelay{250};
    static constexpr std::chrono::milliseconds longestDelay{2000};

    bool onServer() const { return std::string(current_->kind()) != "null"; }

    void retryLoop() {
        std::unique_lock lock(mutex_);
        while (!quit_ && !onServer()) {
            if (!running_) {
                wake_.wait(lock, [this] { return quit_ || running_; });
                continue;
            }
            const auto delay = delay_;
            delay_ = std::min(delay_ * 2, longestDelay);
            if (wake_.wait_for(lock, delay, [this] { return quit_; })) break;
            lock.unlock();
            tryServer();
            lock.lock();
        }
    }

    // Opens a stream (without holding the lock: it talks to the server) and, if one
    // opens, moves playback onto it.
    void tryServer() {
        {
            std::lock_guard lock(mutex_);
            if (onServer()) return;
        }
        std::string reason;
        auto out = server_->open(format_, renderer_, events_, reason);
        if (!out) return;
        {
            std::lock_guard lock(mutex_);
            if (onServer()) return;
            // After stop() the renderer is not called again, so the two never overlap.
            const bool wasRunning = running_;
            current_->stop();
            base_ += current_->playedFrames();
            current_ = std::move(out);
            if (wasRunning && !current_->start()) running_ = false;
        }
        if (events_.availability) events_.availability(true, {});
    }

    std::shared_ptr<SoundServer> server_;
    OutputFormat format_;
    AudioRenderer& renderer_;
    OutputEvents events_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::unique_ptr<AudioOutput> current_;
    int64_t base_ = 0; // frames played by the outputs before the current one
    bool running_ = false;
    bool quit_ = false;
    std::chrono::milliseconds delay_ = firstDelay;
    std::thread thread_; // last: starts once the members above exist
};

} // namespace

void preloadSoundServer() {
    (void)soundServer();
}

OutputFactory systemOutputFactory() {
    auto server = std::make_shared<SoundServer>();
    return [server](const OutputFormat& format, AudioRenderer& renderer,
                    OutputEvents events) -> std::unique_ptr<AudioOutput> {
        std::string reason;
        if (auto out = server->open(format, renderer, events, reason)) {
            if (events.availability) events.availability(true, {});
            return out;
        }
        if (events.availability) events.availability(false, reason);
        return std::make_unique<FallbackOutput>(server, format, renderer, std::move(events));
    };
}

} // namespace trovan
