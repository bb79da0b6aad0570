// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <vector>

namespace trovan {

// Ten-band graphic equalizer: a low shelf at 32 Hz, peaking bands an octave apart
// from 64 Hz to 8 kHz and a high shelf at 16 kHz, with a global pre-gain and a
// bypass. Settings are written from the owner's thread through atomics; the audio
// thread picks them up at the next block and glides to them, so changes never
// click and never take a lock.
class Equalizer {
public:
    static constexpr int bandCount = 10;
    static constexpr std::array<double, bandCount> frequencies = {32,   64,   125,  250,  500,
                                                                  1000, 2000, 4000, 8000, 16000};
    static constexpr float minGain = -12.0f;
    static constexpr float maxGain = 12.0f;
    static constexpr double bandwidthOctaves = 1.0;

    Equalizer();

    // Sets the band gains (clamped to ±12 dB; extra gains are ignored, missing bands
    // keep their gain), the pre-gain −max(0, largest given gain) when enabled, 0 dB
    // otherwise, and the bypass (= !enabled).
    void apply(const std::vector<float>& gains, bool enabled);

    float bandGain(int band) const { return gains_[band].load(std::memory_order_relaxed); }
    float globalGain() const { return globalGain_.load(std::memory_order_relaxed); }
    bool bypass() const { return bypass_.load(std::memory_order_relaxed); }

    // Audio side. `prepare` must not run while `process` may; it resets the filters
    // and jumps straight to the current settings.
    void prepare(double sampleRate, int channels);
    // In place, interleaved; does not lock or allocate.
    void process(float* samples, std::size_t frames) noexcept;

    // Filter memory cells holding subnormal numbers (to check that silence after
    // loud audio does not leave the filters crawling through denormals).
    std::size_t subnormalStateCount() const;

private:
    struct Coefficients {
        double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
    };
    static constexpr int maxChannels = 2;
    static constexpr std::size_t stepFrames = 32;

    Coefficients design(int band, double gainDb) const;
    void setBand(int band, double gainDb);
    void processStep(float* samples, std::size_t frames, double preGainFrom, double preGainTo,
                     bool filtering) noexcept;

    std::array<std::atomic<float>, bandCount> gains_;
    std::atomic<float> globalGain_{0};
    std::atomic<bool> bypass_{false};

    // Audio-thread state.
    double rate_ = 44100;
    int channels_ = 2;
    double smoothing_ = 1; // per-step fraction of the way to the target
    std::array<double, bandCount> currentGain_{};
    std::array<bool, bandCount> active_{};
    std::array<Coefficients, bandCount> coeffs_{};
    std::array<std::array<std::array<double, 2>, maxChannels>, bandCount> state_{};
    double preGain_ = 1; // linear
    double wet_ = 1;     // 1 = equalized, 0 = bypassed, in between while crossfading
    double wetStep_ = 0.01;
    double wetTarget_ = 1;
};

} // namespace trovan
