// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/Equalizer.h"

#include "playback/DenormalGuard.h"

#include <algorithm>
#include <cmath>

namespace trovan {

namespace {

constexpr double pi = 3.14159265358979323846;
constexpr double glideSeconds = 0.015;     // time constant of gain changes
constexpr double crossfadeSeconds = 0.010; // bypass on/off crossfade
constexpr double settledDb = 0.001;

double dbToLinear(double db) {
    return std::pow(10.0, db / 20.0);
}

} // namespace

Equalizer::Equalizer() {
    for (auto& g : gains_)
        g.store(0.0f);
    prepare(rate_, channels_);
}

void Equalizer::apply(const std::vector<float>& gains, bool enabled) {
    std::size_t n = std::min<std::size_t>(gains.size(), bandCount);
    for (std::size_t i = 0; i < n; ++i) {
        float g = gains[i];
        if (std::isnan(g)) g = 0;
        gains_[i].store(std::clamp(g, minGain, maxGain), std::memory_order_relaxed);
    }
    float largest = 0; // unclamped on purpose: it is what keeps the boost from clipping
    for (float g : gains)
        if (g > largest) largest = g;
    globalGain_.store(enabled ? -largest : 0.0f, std::memory_order_relaxed);
    bypass_.store(!enabled, std::memory_order_release);
}

Equalizer::Coefficients Equalizer::design(int band, double gainDb) const {
    const double f0 = frequencies[band];
    const double w0 = 2 * pi * f0 / rate_;
    const double cosw = std::cos(w0);
    const double sinw = std::sin(w0);
    const double A = std::pow(10.0, gainDb / 40.0);
    double b0, b1, b2, a0, a1, a2;
    if (band == 0 || band == bandCount - 1) {
        // Shelf slope S = 1: as steep as it gets while staying monotonic.
        const double alpha = sinw / 2 * std::sqrt(2.0);
        const double k = 2 * std::sqrt(A) * alpha;
        if (band == 0) {
            b0 = A * ((A + 1) - (A - 1) * cosw + k);
            b1 = 2 * A * ((A - 1) - (A + 1) * cosw);
            b2 = A * ((A + 1) - (A - 1) * cosw - k);
            a0 = (A + 1) + (A - 1) * cosw + k;
            a1 = -2 * ((A - 1) + (A + 1) * cosw);
            a2 = (A + 1) + (A - 1) * cosw - k;
        } else {
            b0 = A * ((A + 1) + (A - 1) * cosw + k);
            b1 = -2 * A * ((A - 1) + (A + 1) * cosw);
            b2 = A * ((A + 1) + (A - 1) * cosw - k);
            a0 = (A + 1) - (A - 1) * cosw + k;
            a1 = 2 * ((A - 1) - (A + 1) * cosw);
            a2 = (A + 1) - (A - 1) * cosw - k;
        }
    } else {
        const double alpha = sinw * std::sinh(std::log(2.0) / 2 * bandwidthOctaves * w0 / sinw);
        b0 = 1 + alpha * A;
        b1 = -2 * cosw;
        b2 = 1 - alpha * A;
        a0 = 1 + alpha / A;
        a1 = -2 * cosw;
        a2 = 1 - alpha / A;
    }
    return {b0 / a0, b1 / a0, b2 / a0, a1 / a0, a2 / a0};
}

void Equalizer::setBand(int band, double gainDb) {
    currentGain_[band] = gainDb;
    // A band at or above Nyquist cannot be realised: leave it flat.
    bool wasActive = active_[band];
    active_[band] = gainDb != 0.0 && frequencies[band] < rate_ / 2;
    if (active_[band]) {
        coeffs_[band] = design(band, gainDb);
        if (!wasActive) state_[band] = {};
    }
}

void Equalizer::prepare(double sampleRate, int channels) {
    rate_ = sampleRate > 0 ? sampleRate : 44100;
    channels_ = std::clamp(channels, 1, maxChannels);
    smoothing_ = 1.0 - std::exp(-static_cast<double>(stepFrames) / (glideSeconds * rate_));
    wetStep_ = 1.0 / (crossfadeSeconds * rate_);
    state_ = {};
    active_ = {};
    for (int b = 0; b < bandCount; ++b)
        setBand(b, gains_[b].load(std::memory_order_relaxed));
    preGain_ = dbToLinear(globalGain_.load(std::memory_order_relaxed));
    wet_ = bypass_.load(std::memory_order_acquire) ? 0.0 : 1.0;
}

void Equalizer::process(float* samples, std::size_t frames) noexcept {
    DenormalGuard denormals;
    const double wetTarget = bypass_.load(std::memory_order_acquire) ? 0.0 : 1.0;
    wetTarget_ = wetTarget;
    if (wet_ == 0.0) {
        if (wetTarget == 0.0) return; // bypassed: the signal is not touched at all
        // Coming back from bypass: the filters start fresh at the current settings.
        state_ = {};
        for (int b = 0; b < bandCount; ++b)
            setBand(b, gains_[b].load(std::memory_order_relaxed));
        preGain_ = dbToLinear(globalGain_.load(std::memory_order_relaxed));
    }
    const double preTarget = dbToLinear(globalGain_.load(std::memory_order_relaxed));
    std::array<double, bandCount> targets;
    for (int b = 0; b < bandCount; ++b)
        targets[b] = gains_[b].load(std::memory_order_relaxed);

    for (std::size_t done = 0; done < frames; done += stepFrames) {
        std::size_t n = std::min(stepFrames, frames - done);
        for (int b = 0; b < bandCount; ++b) {
            double diff = targets[b] - currentGain_[b];
            if (diff == 0.0) continue;
            setBand(b,
                    std::abs(diff) < settledDb ? targets[b] : currentGain_[b] + diff * smoothing_);
        }
        double from = preGain_;
        double diff = preTarget - preGain_;
        preGain_ = std::abs(diff) < 1e-6 ? preTarget : preGain_ + diff * smoothing_;
        processStep(samples + done * static_cast<std::size_t>(channels_), n, from, preGain_,
                    wet_ != wetTarget || wet_ != 1.0);
        if (wet_ != wetTarget) {
            // processStep advanced the crossfade sample by sample; keep it exact at the ends.
            if (std::abs(wet_ - wetTarget) < 1e-9) wet_ = wetTarget;
        }
    }
}

void Equalizer::processStep(float* samples, std::size_t frames, double preGainFrom,
                            double preGainTo, bool crossfading) noexcept {
    const auto ch = static_cast<std::size_t>(channels_);
    double buf[stepFrames * maxChannels];
    const double step = (preGainTo - preGainFrom) / static_cast<double>(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        double g = preGainFrom + step * static_cast<double>(i + 1);
        for (std::size_t c = 0; c < ch; ++c) {
            // One NaN or infinity would stay in the filters' memory for good.
            const float x = samples[i * ch + c];
            buf[i * ch + c] = std::isfinite(x) ? x * g : 0.0;
        }
    }
    for (int b = 0; b < bandCount; ++b) {
        if (!active_[b]) continue;
        const Coefficients k = coeffs_[b];
        if (ch == 2) {
            // Both channels in one pass: two independent chains keep the FPU busy.
            double l1 = state_[b][0][0], l2 = state_[b][0][1];
            double r1 = state_[b][1][0], r2 = state_[b][1][1];
            for (std::size_t i = 0; i < frames; ++i) {
                double xl = buf[2 * i], xr = buf[2 * i + 1];
                double yl = k.b0 * xl + l1;
                double yr = k.b0 * xr + r1;
                l1 = k.b1 * xl - k.a1 * yl + l2;
                r1 = k.b1 * xr - k.a1 * yr + r2;
                l2 = k.b2 * xl - k.a2 * yl;
                r2 = k.b2 * xr - k.a2 * yr;
                buf[2 * i] = yl;
                buf[2 * i + 1] = yr;
            }
            state_[b][0] = {l1, l2};
            state_[b][1] = {r1, r2};
            continue;
        }
        for (std::size_t c = 0; c < ch; ++c) {
            double z1 = state_[b][c][0], z2 = state_[b][c][1];
            for (std::size_t i = 0; i < frames; ++i) {
                double x = buf[i * ch + c];
                double y = k.b0 * x + z1;
                z1 = k.b1 * x - k.a1 * y + z2;
                z2 = k.b2 * x - k.a2 * y;
                buf[i * ch + c] = y;
            }
            state_[b][c][0] = z1;
            state_[b][c][1] = z2;
        }
    }
    if (!crossfading) {
        for (std::size_t i = 0; i < frames * ch; ++i)
            samples[i] = static_cast<float>(buf[i]);
        return;
    }
    const double target = wetTarget_;
    for (std::size_t i = 0; i < frames; ++i) {
        if (wet_ < target)
            wet_ = std::min(target, wet_ + wetStep_);
        else if (wet_ > target)
            wet_ = std::max(target, wet_ - wetStep_);
        for (std::size_t c = 0; c < ch; ++c) {
            const float x = samples[i * ch + c];
            const double dry = std::isfinite(x) ? x : 0.0;
            samples[i * ch + c] = static_cast<float>(dry + (buf[i * ch + c] - dry) * wet_);
        }
    }
}

std::size_t Equalizer::subnormalStateCount() const {
    std::size_t count = 0;
    for (const auto& band : state_)
        for (const auto& channel : band)
            for (double v : channel)
                if (std::fpclassify(v) == FP_SUBNORMAL) ++count;
    return count;
}

} // namespace trovan
