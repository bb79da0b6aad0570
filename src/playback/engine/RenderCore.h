#pragma once
// The render core: the output's callback, with the ring, the fades, the equalizer and
// the volume.
//
// Threads: `render` runs on the output's real-time thread and never locks, allocates
// or blocks. The owner swaps the segment with `attach`/`detach` and switches the
// callback on and off with `setLive`; both set an atomic and then wait until the
// callback is not inside `render` (the `busy_` flag), so when they return the
// callback no longer sees the old value. Fade requests, volume and results
// (`rendered`, `fadeOutEnd`) pass through atomics only.

#include "playback/AudioEngine.h"
#include "playback/engine/EngineTuning.h"
#include "playback/engine/Segment.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace trovan {

// Runs on the output's real-time thread. Never locks, allocates or blocks.
class AudioEngine::RenderCore final : public AudioRenderer {
public:
    explicit RenderCore(Equalizer& eq) : eq_(eq) {}

    void render(float* out, std::size_t frames) noexcept override;

    // Owner thread. After it returns the callback no longer sees `segment_`'s old value.
    void attach(Segment* s) {
        segment_.store(s, std::memory_order_seq_cst);
        fadeOut_.store(false, std::memory_order_seq_cst);
        epoch_.fetch_add(1, std::memory_order_seq_cst);
        quiesce();
    }
    void detach() { attach(nullptr); }

    // Owner thread, with no output running or after `setLive(false)`.
    void reset(int channels, int sampleRate) {
        channels_ = std::clamp(channels, 1, 2);
        rendered_.store(0);
        volumeStep_ =
            1.0f / static_cast<float>(engine::volumeRampSeconds * std::max(sampleRate, 1));
        volume_ = volumeTarget_.load();
        fadeLength_ = std::max(1.0, engine::fadeSeconds * sampleRate);
    }
    void setLive(bool live) {
        live_.store(live, std::memory_order_seq_cst);
        quiesce();
    }
    // Owner thread: from the next block, fades the segment out and then plays silence.
    void requestFadeOut() {
        fadeDone_.store(-1, std::memory_order_relaxed);
        fadeOut_.store(true, std::memory_order_seq_cst);
    }
    // The rendered frame at which the fade out ended, or -1 while it has not.
    int64_t fadeOutEnd() const { return fadeDone_.load(std::memory_order_acquire); }
    int64_t rendered() const { return rendered_.load(std::memory_order_acquire); }

    void setVolume(float v) { volumeTarget_.store(v, std::memory_order_relaxed); }
    float volume() const { return volumeTarget_.load(std::memory_order_relaxed); }

private:
    // Ramps the first frames of every segment up from silence and, on request, the
    // current one down to it.
    void fade(float* out, std::size_t got, std::size_t ch, int64_t base) noexcept;

    // The decoder fell behind and silence follows `got` frames: end them with a fade
    // rather than a cut, and fade in again when the audio returns.
    void fadeTail(float* out, std::size_t got, std::size_t ch) noexcept;

    void quiesce() const {
        while (busy_.load(std::memory_order_seq_cst))
            std::this_thread::yield();
    }

    void applyVolume(float* out, std::size_t frames, std::size_t ch) noexcept;

    Equalizer& eq_;
    int channels_ = 2;
    std::atomic<Segment*> segment_{nullptr};
    std::atomic<bool> busy_{false};
    std::atomic<bool> live_{false};
    std::atomic<int64_t> rendered_{0};
    std::atomic<float> volumeTarget_{1.0f};
    float volume_ = 1.0f;
    float volumeStep_ = 0.001f;
    double fadeLength_ = 176;
    std::atomic<bool> fadeOut_{false};
    std::atomic<int64_t> fadeDone_{-1};
    std::atomic<uint64_t> epoch_{0}; // attachments so far: each one fades in anew
    // Callback only.
    uint64_t seenEpoch_ = 0;
    std::size_t fadeIn_ = 0;
    std::size_t fadeLeft_ = 0;
};

// Keeps the current segment's ring topped up, goes on into the prepared track when
// a file ends, and notices when joins and the last frame have been heard. One

} // namespace trovan
