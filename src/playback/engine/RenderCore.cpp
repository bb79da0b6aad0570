// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/engine/RenderCore.h"

#include "playback/DenormalGuard.h"

#include <cmath>
#include <numbers>

namespace trovan {

namespace {

// Nothing leaves the limiter louder than this (about -0.04 dBFS).
constexpr float ceiling = 0.995f;
constexpr double limiterReleaseSeconds = 0.15;
constexpr double gainSmoothingSeconds = 0.02;
constexpr double halfPi = std::numbers::pi / 2;

} // namespace

AudioEngine::RenderCore::RenderCore(Equalizer& eq)
    : eq_(eq), scratch_(std::make_unique<float[]>(blockFrames * 2)) {}

void AudioEngine::RenderCore::reset(int channels, int sampleRate) {
    channels_ = static_cast<std::size_t>(std::clamp(channels, 1, 2));
    sampleRate_ = std::max(sampleRate, 1);
    rendered_.store(0);
    volumeStep_ = 1.0f / static_cast<float>(engine::volumeRampSeconds * sampleRate_);
    volume_ = volumeTarget_.load();
    fadeLength_ = static_cast<std::size_t>(std::max(1.0, engine::fadeSeconds * sampleRate_));
    gainSmoothing_ =
        static_cast<float>(1.0 - std::exp(-1.0 / (gainSmoothingSeconds * sampleRate_)));
    limiterRelease_ = 1.0 - std::exp(-1.0 / (limiterReleaseSeconds * sampleRate_));
    limiterGain_ = 1.0;
}

void AudioEngine::RenderCore::render(float* out, std::size_t frames) noexcept {
    DenormalGuard denormals;
    busy_.store(true, std::memory_order_seq_cst);
    if (!live_.load(std::memory_order_seq_cst)) {
        std::fill(out, out + frames * channels_, 0.0f);
        busy_.store(false, std::memory_order_seq_cst);
        return;
    }
    for (std::size_t done = 0; done < frames;) {
        const std::size_t n = std::min(frames - done, blockFrames);
        renderBlock(out + done * channels_, n);
        done += n;
    }
    busy_.store(false, std::memory_order_seq_cst);
}

void AudioEngine::RenderCore::renderBlock(float* out, std::size_t frames) noexcept {
    const int64_t base = rendered_.load(std::memory_order_relaxed);
    std::fill(out, out + frames * channels_, 0.0f);
    // After the pause's fade only silence follows: the rings stay where the pause was.
    const bool paused =
        fadeOut_.load(std::memory_order_acquire) && fadeDone_.load(std::memory_order_relaxed) >= 0;
    if (!paused) {
        for (auto& slot : slots_) {
            Segment* s = slot.load(std::memory_order_seq_cst);
            if (!s || s->faded.load(std::memory_order_relaxed)) continue;
            if (!s->mix.begun) {
                // A crossfade in starts with the block after its partner's crossfade out did.
                Segment* partner = s->waitFor;
                if (partner && !partner->crossfading.load(std::memory_order_acquire) &&
                    !partner->faded.load(std::memory_order_acquire))
                    continue;
                s->mix.begun = true;
                s->mix.fadeInLength = fadeLength_;
                if (partner && partner->mix.out == Segment::Mix::crossfade) {
                    s->mix.fadeInLength = static_cast<std::size_t>(partner->mix.crossfadeLength);
                    s->mix.equalPowerIn = true;
                }
            }
            mix(*s, out, frames, base);
        }
        masterFade(out, frames, base);
    }
    eq_.process(out, frames);
    limit(out, frames);
    applyVolume(out, frames);
    rendered_.store(base + static_cast<int64_t>(frames), std::memory_order_release);
}

void AudioEngine::RenderCore::mix(Segment& s, float* out, std::size_t frames,
                                  int64_t base) noexcept {
    const std::size_t ch = channels_;
    float* in = scratch_.get();
    const std::size_t got = s.ring.read(in, frames * ch) / ch;
    // A damaged file can decode to NaN or infinity: silence, never full-scale noise.
    for (std::size_t i = 0; i < got * ch; ++i)
        if (!std::isfinite(in[i])) in[i] = 0.0f;
    bool starved = false;
    if (got > 0 && s.deviceBase.load(std::memory_order_relaxed) < 0)
        s.deviceBase.store(base, std::memory_order_release);
    if (got < frames) {
        if (s.eof.load(std::memory_order_acquire) && s.ring.readable() == 0) {
            if (!s.drained.load(std::memory_order_relaxed)) {
                const auto end = base + static_cast<int64_t>(got);
                if (s.deviceBase.load(std::memory_order_relaxed) < 0)
                    s.deviceBase.store(end, std::memory_order_release);
                s.endDevice.store(end, std::memory_order_relaxed);
                s.drained.store(true, std::memory_order_release);
            }
        } else if (s.deviceBase.load(std::memory_order_relaxed) >= 0) {
            starved = true;
            // The decoder fell behind: the silence we insert shifts the rest of the
            // segment later on the device clock.
            s.deviceBase.fetch_add(static_cast<int64_t>(frames - got), std::memory_order_release);
        }
    }
    const int64_t first = s.consumed.load(std::memory_order_relaxed);
    s.consumed.store(first + static_cast<int64_t>(got), std::memory_order_release);

    auto& m = s.mix;
    const float target = s.gain.load(std::memory_order_relaxed);
    if (!m.gainSet) {
        m.gain = target;
        m.gainSet = true;
    }
    if (const int64_t quick = s.quickFade.load(std::memory_order_acquire);
        quick > 0 && m.out != Segment::Mix::quick) {
        // From wherever the envelope is now, straight down.
        m.out = Segment::Mix::quick;
        m.quickStep = m.envelope / static_cast<double>(quick);
    }
    // A damaged file's decoder may have stopped short: the fade ends with the data.
    // A segment that stops short in the middle of a crossfade (a file that fails) ends
    // with a fade too.
    const int64_t crossfadeAt = s.crossfadeAt.load(std::memory_order_acquire);
    const bool cutShort = got < frames && crossfadeAt != Segment::noFrame;
    const std::size_t tail = starved || cutShort ? std::min(got, fadeLength_) : 0;
    for (std::size_t i = 0; i < got; ++i) {
        const int64_t at = first + static_cast<int64_t>(i);
        if (m.out == Segment::Mix::none && at >= crossfadeAt) {
            m.out = Segment::Mix::crossfade;
            m.crossfadeFrom = at;
            m.crossfadeLength =
                std::max<int64_t>(s.crossfadeEnd.load(std::memory_order_relaxed) - at, 1);
            s.crossfading.store(true, std::memory_order_release);
        }
        double g = m.gain;
        if (m.gain != target) {
            m.gain += (target - m.gain) * gainSmoothing_;
            if (std::abs(m.gain - target) < 1e-6f) m.gain = target;
        }
        if (m.fadeIn < m.fadeInLength) {
            const double p = static_cast<double>(++m.fadeIn) / static_cast<double>(m.fadeInLength);
            g *= m.equalPowerIn ? std::sin(p * halfPi) : p;
        }
        if (m.out == Segment::Mix::crossfade) {
            const double p =
                static_cast<double>(at - m.crossfadeFrom) / static_cast<double>(m.crossfadeLength);
            m.envelope = p >= 1 ? 0.0 : std::cos(p * halfPi);
        } else if (m.out == Segment::Mix::quick) {
            m.envelope = std::max(0.0, m.envelope - m.quickStep);
        }
        g *= m.envelope;
        if (i + tail >= got && tail > 0)
            g *= static_cast<double>(got - 1 - i) / static_cast<double>(tail);
        const auto gf = static_cast<float>(g);
        for (std::size_t c = 0; c < ch; ++c)
            out[i * ch + c] += in[i * ch + c] * gf;
        if (m.out != Segment::Mix::none && m.envelope <= 0) {
            s.faded.store(true, std::memory_order_release);
            break;
        }
    }
    // After a dropout the audio comes back with a fade in.
    if (starved) {
        m.fadeIn = 0;
        m.fadeInLength = fadeLength_;
        m.equalPowerIn = false;
    }
}

void AudioEngine::RenderCore::masterFade(float* out, std::size_t frames, int64_t base) noexcept {
    const bool requested = fadeOut_.load(std::memory_order_acquire);
    if (!requested) {
        fadingOut_ = false;
        return;
    }
    if (!fadingOut_) {
        fadingOut_ = true;
        fadeLeft_ = fadeLength_;
    }
    for (std::size_t i = 0; i < frames; ++i) {
        if (fadeLeft_ > 0) --fadeLeft_;
        const float gain = static_cast<float>(fadeLeft_) / static_cast<float>(fadeLength_);
        for (std::size_t c = 0; c < channels_; ++c)
            out[i * channels_ + c] *= gain;
        if (fadeLeft_ == 0 && fadeDone_.load(std::memory_order_relaxed) < 0)
            fadeDone_.store(base + static_cast<int64_t>(i) + 1, std::memory_order_release);
    }
}

// Instant attack, slow release: no sample ever leaves louder than the ceiling, and
// the gain comes back up once the loud passage is over.
void AudioEngine::RenderCore::limit(float* out, std::size_t frames) noexcept {
    for (std::size_t i = 0; i < frames; ++i) {
        float peak = 0;
        for (std::size_t c = 0; c < channels_; ++c)
            peak = std::max(peak, std::abs(out[i * channels_ + c]));
        if (peak * limiterGain_ > ceiling) limiterGain_ = ceiling / peak;
        if (limiterGain_ < 1.0) {
            const auto g = static_cast<float>(limiterGain_);
            for (std::size_t c = 0; c < channels_; ++c)
                out[i * channels_ + c] = std::clamp(out[i * channels_ + c] * g, -ceiling, ceiling);
            limiterGain_ = std::min(1.0, limiterGain_ + (1.0 - limiterGain_) * limiterRelease_);
            if (limiterGain_ > 1.0 - 1e-7) limiterGain_ = 1.0;
        }
    }
}

void AudioEngine::RenderCore::applyVolume(float* out, std::size_t frames) noexcept {
    const float target = volumeTarget_.load(std::memory_order_relaxed);
    const std::size_t ch = channels_;
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
