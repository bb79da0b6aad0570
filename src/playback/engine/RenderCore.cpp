#include "playback/engine/RenderCore.h"

#include "playback/DenormalGuard.h"

#include <cmath>

namespace trovan {

void AudioEngine::RenderCore::render(float* out, std::size_t frames) noexcept {
    DenormalGuard denormals;
    busy_.store(true, std::memory_order_seq_cst);
    const auto ch = static_cast<std::size_t>(channels_);
    if (!live_.load(std::memory_order_seq_cst)) {
        std::fill(out, out + frames * ch, 0.0f);
        busy_.store(false, std::memory_order_seq_cst);
        return;
    }
    const int64_t base = rendered_.load(std::memory_order_relaxed);
    std::size_t got = 0;
    bool starved = false;
    Segment* s = segment_.load(std::memory_order_seq_cst);
    // After a fade out only silence follows: the ring stays where the pause was.
    if (s && fadeOut_.load(std::memory_order_acquire) &&
        fadeDone_.load(std::memory_order_relaxed) >= 0)
        s = nullptr;
    if (s) {
        got = s->ring.read(out, frames * ch) / ch;
        // A damaged file can decode to NaN or infinity: silence, never full-scale noise.
        for (std::size_t i = 0; i < got * ch; ++i)
            if (!std::isfinite(out[i])) out[i] = 0.0f;
        if (got > 0 && s->deviceBase.load(std::memory_order_relaxed) < 0)
            s->deviceBase.store(base, std::memory_order_release);
        if (got < frames) {
            if (s->eof.load(std::memory_order_acquire) && s->ring.readable() == 0) {
                if (!s->drained.load(std::memory_order_relaxed)) {
                    auto end = base + static_cast<int64_t>(got);
                    if (s->deviceBase.load(std::memory_order_relaxed) < 0)
                        s->deviceBase.store(end, std::memory_order_release);
                    s->endDevice.store(end, std::memory_order_relaxed);
                    s->drained.store(true, std::memory_order_release);
                }
            } else if (s->deviceBase.load(std::memory_order_relaxed) >= 0) {
                starved = true;
                // The decoder fell behind: the silence we insert shifts the
                // rest of the segment later on the device clock.
                s->deviceBase.fetch_add(static_cast<int64_t>(frames - got),
                                        std::memory_order_release);
            }
        }
        s->consumed.fetch_add(static_cast<int64_t>(got), std::memory_order_release);
        fade(out, got, ch, base);
        if (starved) fadeTail(out, got, ch);
    }
    std::fill(out + got * ch, out + frames * ch, 0.0f);
    eq_.process(out, frames);
    applyVolume(out, frames, ch);
    rendered_.store(base + static_cast<int64_t>(frames), std::memory_order_release);
    busy_.store(false, std::memory_order_seq_cst);
}

void AudioEngine::RenderCore::fade(float* out, std::size_t got, std::size_t ch,
                                   int64_t base) noexcept {
    const auto length = static_cast<std::size_t>(fadeLength_);
    const auto epoch = epoch_.load(std::memory_order_acquire);
    if (epoch != seenEpoch_) {
        seenEpoch_ = epoch;
        fadeIn_ = 0;
        fadeLeft_ = 0;
    }
    const bool fadingOut = fadeOut_.load(std::memory_order_acquire);
    if (fadingOut && fadeLeft_ == 0 && fadeDone_.load(std::memory_order_relaxed) < 0)
        fadeLeft_ = length;
    for (std::size_t i = 0; i < got; ++i) {
        float gain = 1.0f;
        if (fadeIn_ < length) gain = static_cast<float>(++fadeIn_) / static_cast<float>(length);
        if (fadingOut) {
            if (fadeLeft_ > 0) --fadeLeft_;
            gain *= static_cast<float>(fadeLeft_) / static_cast<float>(length);
            if (fadeLeft_ == 0 && fadeDone_.load(std::memory_order_relaxed) < 0)
                fadeDone_.store(base + static_cast<int64_t>(i) + 1, std::memory_order_release);
        }
        for (std::size_t c = 0; c < ch; ++c)
            out[i * ch + c] *= gain;
    }
}

void AudioEngine::RenderCore::fadeTail(float* out, std::size_t got, std::size_t ch) noexcept {
    const std::size_t n = std::min(got, static_cast<std::size_t>(fadeLength_));
    for (std::size_t k = 0; k < n; ++k)
        for (std::size_t c = 0; c < ch; ++c)
            out[(got - n + k) * ch + c] *= static_cast<float>(n - 1 - k) / static_cast<float>(n);
    fadeIn_ = 0;
}

void AudioEngine::RenderCore::applyVolume(float* out, std::size_t frames, std::size_t ch) noexcept {
    const float target = volumeTarget_.load(std::memory_order_relaxed);
    if (volume_ == target) {
        if (target != 1.0f)
            for (std::size_t i = 0; i < frames * ch; ++i)
                out[i] *= target;
        return;
    }
    for (std::size_t i = 0; i < frames; ++i) {
        if (volume_ < target)
            volume_ = std::min(target, volume_ + volumeStep_);
        else if (volume_ > target)
            volume_ = std::max(target, volume_ - volumeStep_);
        for (std::size_t c = 0; c < ch; ++c)
            out[i * ch + c] *= volume_;
    }
}

} // namespace trovan
