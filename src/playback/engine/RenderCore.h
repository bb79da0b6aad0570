// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The render core: the output's callback. It mixes the segments it is given (the one
// playing, one waiting to crossfade in, and ones fading out), each through its own
// loudness gain and fades, then applies the equalizer, the limiter and the volume.
//
// Threads: `render` runs on the output's real-time thread and never locks, allocates
// or blocks. The owner hands segments over with `setSegments` and switches the
// callback on and off with `setLive`; both store atomics and then wait until the
// callback is not inside `render` (the `busy_` flag), so when they return the
// callback no longer sees the old values and the owner may free what it let go of.
// Everything else (gains, fade requests, volume, and what the callback reports back:
// `rendered`, `fadeOutEnd`, a segment's `crossfading` and `faded`) passes through
// atomics only.

#include "playback/AudioEngine.h"
#include "playback/engine/EngineTuning.h"
#include "playback/engine/Segment.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <thread>

namespace trovan {

class AudioEngine::RenderCore final : public AudioRenderer {
public:
    // The playing segment, the one that crossfades in after it, and those fading out.
    static constexpr std::size_t slotCount = 4;
    using Slots = std::array<Segment*, slotCount>;

    explicit RenderCore(Equalizer& eq);

    void render(float* out, std::size_t frames) noexcept override;

    // Owner thread. After it returns the callback no longer sees the segments it had.
    void setSegments(const Slots& slots) {
        for (std::size_t i = 0; i < slotCount; ++i)
            slots_[i].store(slots[i], std::memory_order_seq_cst);
        fadeOut_.store(false, std::memory_order_seq_cst);
        quiesce();
    }
    void detach() { setSegments({}); }

    // Owner thread, with no output running or after `setLive(false)`.
    void reset(int channels, int sampleRate);
    void setLive(bool live) {
        live_.store(live, std::memory_order_seq_cst);
        quiesce();
    }
    // Owner thread: from the next block, fades everything out and then plays silence.
    void requestFadeOut() {
        fadeDone_.store(-1, std::memory_order_relaxed);
        fadeOut_.store(true, std::memory_order_seq_cst);
    }
    // The rendered frame at which the fade out ended, or -1 while it has not.
    int64_t fadeOutEnd() const { return fadeDone_.load(std::memory_order_acquire); }
    int64_t rendered() const { return rendered_.load(std::memory_order_acquire); }
    int sampleRate() const { return sampleRate_; }

    void setVolume(float v) { volumeTarget_.store(v, std::memory_order_relaxed); }
    float volume() const { return volumeTarget_.load(std::memory_order_relaxed); }

private:
    void renderBlock(float* out, std::size_t frames) noexcept;
    // Adds what `s` contributes to the next `frames` frames; the device frame of the
    // first one is `base`.
    void mix(Segment& s, float* out, std::size_t frames, int64_t base) noexcept;
    // The pause's fade, applied to the whole mix.
    void masterFade(float* out, std::size_t frames, int64_t base) noexcept;
    void limit(float* out, std::size_t frames) noexcept;
    void applyVolume(float* out, std::size_t frames) noexcept;

    void quiesce() const {
        while (busy_.load(std::memory_order_seq_cst))
            std::this_thread::yield();
    }

    static constexpr std::size_t blockFrames = 2048;

    Equalizer& eq_;
    std::size_t channels_ = 2;
    int sampleRate_ = 48000;
    std::array<std::atomic<Segment*>, slotCount> slots_{};
    std::atomic<bool> busy_{false};
    std::atomic<bool> live_{false};
    std::atomic<int64_t> rendered_{0};
    std::atomic<float> volumeTarget_{1.0f};
    std::atomic<bool> fadeOut_{false};
    std::atomic<int64_t> fadeDone_{-1};
    // Callback only (and `reset`).
    float volume_ = 1.0f;
    float volumeStep_ = 0.001f;
    std::size_t fadeLength_ = 176;
    std::size_t fadeLeft_ = 0;
    bool fadingOut_ = false;
    float gainSmoothing_ = 0.001f;
    double limiterRelease_ = 0.0001;
    double limiterGain_ = 1.0;
    std::unique_ptr<float[]> scratch_; // one block of one segment
};

} // namespace trovan
