#include "playback/Equalizer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace trovan {
namespace {

constexpr double pi = 3.14159265358979323846;

std::vector<float> sine(double freq, double rate, double seconds, float amplitude = 0.25f) {
    auto frames = static_cast<std::size_t>(rate * seconds);
    std::vector<float> out(frames * 2);
    for (std::size_t i = 0; i < frames; ++i) {
        auto v =
            static_cast<float>(amplitude * std::sin(2 * pi * freq * static_cast<double>(i) / rate));
        out[2 * i] = out[2 * i + 1] = v;
    }
    return out;
}

double rms(const std::vector<float>& s, std::size_t fromFrame) {
    double sum = 0;
    std::size_t n = 0;
    for (std::size_t i = fromFrame * 2; i < s.size(); ++i, ++n)
        sum += double(s[i]) * s[i];
    return std::sqrt(sum / static_cast<double>(n));
}

std::vector<float> gainsWith(int band, float gain) {
    std::vector<float> g(10, 0.0f);
    g[static_cast<std::size_t>(band)] = gain;
    return g;
}

// Level change in dB of a sine at `freq` through an equalizer with `gains`,
// measured on the output once the filters have settled, with the pre-gain taken out.
double measuredGainDb(const std::vector<float>& gains, double freq, double rate = 44100) {
    Equalizer eq;
    eq.apply(gains, true);
    eq.prepare(rate, 2);
    auto in = sine(freq, rate, 1.0);
    auto out = in;
    eq.process(out.data(), out.size() / 2);
    auto settle = static_cast<std::size_t>(rate * 0.5);
    return 20 * std::log10(rms(out, settle) / rms(in, settle)) - eq.globalGain();
}

TEST(EqualizerTest, FlatEnabledPassesTheSignalThrough) {
    Equalizer eq;
    eq.apply(std::vector<float>(10, 0.0f), true);
    eq.prepare(44100, 2);
    EXPECT_EQ(eq.globalGain(), 0.0f);
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> dist(-1, 1);
    std::vector<float> in(8192);
    for (auto& v : in)
        v = dist(rng);
    auto out = in;
    eq.process(out.data(), out.size() / 2);
    for (std::size_t i = 0; i < in.size(); ++i)
        ASSERT_NEAR(out[i], in[i], 1e-6f);
}

TEST(EqualizerTest, PeakingBandLiftsItsCentreMoreThanItsNeighbours) {
    auto gains = gainsWith(5, 6.0f);
    double centre = measuredGainDb(gains, 1000);
    EXPECT_NEAR(centre, 6.0, 0.5);
    double below = measuredGainDb(gains, 500);
    double above = measuredGainDb(gains, 2000);
    EXPECT_LT(below, centre - 1.0);
    EXPECT_LT(above, centre - 1.0);
    EXPECT_GT(below, 0.1); // a one-octave band still reaches its neighbours a little
    EXPECT_NEAR(measuredGainDb(gains, 60), 0.0, 0.2);

    auto cut = gainsWith(5, -6.0f);
    EXPECT_NEAR(measuredGainDb(cut, 1000), -6.0, 0.5);
}

TEST(EqualizerTest, ShelvesLiftTheEnds) {
    auto low = gainsWith(0, 6.0f);
    EXPECT_GT(measuredGainDb(low, 15), 5.0);
    EXPECT_NEAR(measuredGainDb(low, 1000), 0.0, 0.2);
    auto high = gainsWith(9, 6.0f);
    EXPECT_GT(measuredGainDb(high, 19000), 5.0);
    EXPECT_NEAR(measuredGainDb(high, 1000), 0.0, 0.2);
}

TEST(EqualizerTest, PreGainTakesBackTheLargestBoost) {
    Equalizer eq;
    eq.apply({6, 5, 4, 2, 1, 0, 0, 0, 0, 0}, true);
    EXPECT_EQ(eq.globalGain(), -6.0f);
    EXPECT_FALSE(eq.bypass());
    eq.apply({-2, -3, -3, 1, 4, 4, 3, 1, 0, -2}, true);
    EXPECT_EQ(eq.globalGain(), -4.0f);
    eq.apply({-2, -3}, true);
    EXPECT_EQ(eq.globalGain(), 0.0f);
    EXPECT_EQ(eq.bandGain(1), -3.0f);
    EXPECT_EQ(eq.bandGain(2), -3.0f); // bands without a gain keep theirs
    eq.apply({}, true);
    EXPECT_EQ(eq.globalGain(), 0.0f);
    eq.apply({20, -30, 0, 0, 0, 0, 0, 0, 0, 0, 99}, true);
    EXPECT_EQ(eq.bandGain(0), 12.0f);
    EXPECT_EQ(eq.bandGain(1), -12.0f);
    EXPECT_EQ(eq.globalGain(), -99.0f); // the unclamped largest value
    eq.apply({6, 5, 4}, false);
    EXPECT_EQ(eq.globalGain(), 0.0f);
    EXPECT_TRUE(eq.bypass());

    // Measured: +6 dB at 1 kHz with its pre-gain leaves a 1 kHz tone where it was.
    Equalizer boost;
    boost.apply(gainsWith(5, 6.0f), true);
    boost.prepare(44100, 2);
    auto in = sine(1000, 44100, 1.0);
    auto out = in;
    boost.process(out.data(), out.size() / 2);
    EXPECT_NEAR(20 * std::log10(rms(out, 22050) / rms(in, 22050)), 0.0, 0.5);
}

TEST(EqualizerTest, BypassIsBitExactOnceTheCrossfadeIsOver) {
    Equalizer eq;
    eq.apply({12, -12, 12, -12, 12, -12, 12, -12, 12, -12}, true);
    eq.prepare(48000, 2);
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> dist(-1, 1);
    std::vector<float> block(1024);
    auto fill = [&] {
        for (auto& v : block)
            v = dist(rng);
    };
    fill();
    eq.process(block.data(), 512);
    eq.apply({12, -12, 12, -12, 12, -12, 12, -12, 12, -12}, false);
    for (int i = 0; i < 4; ++i) { // 10 ms crossfade = 480 frames
        fill();
        eq.process(block.data(), 512);
    }
    fill();
    auto copy = block;
    eq.process(block.data(), 512);
    EXPECT_EQ(std::memcmp(copy.data(), block.data(), block.size() * sizeof(float)), 0);
}

TEST(EqualizerTest, GainChangesGlideInsteadOfJumping) {
    // A 100 Hz tone while the 125 Hz band jumps from 0 to +12 dB: the output must
    // never step by more than the loudest settled tone can between two samples.
    Equalizer eq;
    eq.apply(std::vector<float>(10, 0.0f), true);
    eq.prepare(44100, 2);
    auto signal = sine(100, 44100, 1.0, 0.2f);
    eq.process(signal.data(), 4410);
    eq.apply(gainsWith(2, 12.0f), true);
    eq.process(signal.data() + 4410 * 2, signal.size() / 2 - 4410);
    double settledPeak = 0;
    for (std::size_t i = 30000; i < signal.size() / 2; ++i)
        settledPeak = std::max(settledPeak, std::abs(double(signal[2 * i])));
    double maxStep = 2 * pi * 100 / 44100 * std::max(settledPeak, 0.2) * 1.05;
    for (std::size_t i = 1; i < signal.size() / 2; ++i)
        ASSERT_LE(std::abs(double(signal[2 * i]) - signal[2 * i - 2]), maxStep) << "frame " << i;
}

TEST(EqualizerTest, BandAtNyquistStaysFlatAndStable) {
    Equalizer eq;
    eq.apply({12, 12, 12, 12, 12, 12, 12, 12, 12, 12}, true);
    eq.prepare(32000, 2);
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> dist(-0.5f, 0.5f);
    std::vector<float> noise(32000 * 2);
    for (auto& v : noise)
        v = dist(rng);
    eq.process(noise.data(), 32000);
    float peak = 0;
    for (float v : noise) {
        ASSERT_TRUE(std::isfinite(v));
        peak = std::max(peak, std::abs(v));
    }
    EXPECT_LT(peak, 4.0f);

    // The 16 kHz shelf cannot exist at 32 kHz: with only it raised, nothing changes
    // but the pre-gain.
    EXPECT_NEAR(measuredGainDb(gainsWith(9, 12.0f), 15000, 32000), 0.0, 0.01);
    EXPECT_GT(measuredGainDb(gainsWith(9, 12.0f), 15000, 44100), 3.0); // but it does at 44.1 kHz
}

TEST(EqualizerTest, SilenceAfterLoudAudioLeavesNoDenormals) {
    Equalizer eq;
    eq.apply({12, -12, 12, -12, 12, -12, 12, -12, 12, -12}, true);
    eq.prepare(44100, 2);
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> dist(-1, 1);
    std::vector<float> block(1024);
    for (int i = 0; i < 100; ++i) {
        for (auto& v : block)
            v = dist(rng);
        eq.process(block.data(), 512);
    }
    // Ten seconds of silence: long enough for every filter tail to decay past the
    // smallest normal double, which is where denormals would appear.
    std::size_t subnormalSamples = 0, subnormalStates = 0;
    for (int i = 0; i < 862; ++i) {
        std::fill(block.begin(), block.end(), 0.0f);
        eq.process(block.data(), 512);
        for (float v : block)
            if (std::fpclassify(v) == FP_SUBNORMAL) ++subnormalSamples;
        subnormalStates += eq.subnormalStateCount();
    }
    EXPECT_EQ(subnormalSamples, 0u);
    EXPECT_EQ(subnormalStates, 0u);
}

} // namespace
} // namespace trovan
