// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/Equalizer.h"
#include "playback/EqualizerPresets.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace trovan {
namespace {

constexpr double pi = 3.14159265358979323846;
const std::vector<float> flat(10, 0.0f);

// An equalizer set up for stereo.
struct Eq : Equalizer {
    Eq(const std::vector<float>& gains, double rate) {
        apply(gains, true);
        prepare(rate, 2);
    }
    void run(std::vector<float>& stereo) { process(stereo.data(), stereo.size() / 2); }
};

// One second of stereo sine.
std::vector<float> sine(double freq, double rate, float amplitude = 0.25f) {
    std::vector<float> out(static_cast<std::size_t>(rate) * 2);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<float>(amplitude * std::sin(2 * pi * freq * double(i / 2) / rate));
    return out;
}

std::vector<float> noise(std::size_t samples, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(-1, 1);
    std::vector<float> out(samples);
    for (auto& v : out)
        v = dist(rng);
    return out;
}

std::vector<float> gainsWith(int band, float gain) {
    auto g = flat;
    g[static_cast<std::size_t>(band)] = gain;
    return g;
}

// Level change in dB of a sine through an equalizer with `gains`, measured over the second
// half of a second once the filters have settled; the pre-gain is taken out unless asked.
double measuredGainDb(const std::vector<float>& gains, double freq, double rate = 44100,
                      bool withPreGain = false) {
    Eq eq(gains, rate);
    auto in = sine(freq, rate), out = in;
    eq.run(out);
    double sumIn = 0, sumOut = 0;
    for (std::size_t i = in.size() / 2; i < in.size(); ++i) {
        sumIn += double(in[i]) * in[i];
        sumOut += double(out[i]) * out[i];
    }
    return 10 * std::log10(sumOut / sumIn) - (withPreGain ? 0 : eq.globalGain());
}

TEST(EqualizerTest, BandsAndShelvesMoveTheirOwnFrequencies) {
    Eq unchanged(flat, 44100);
    auto in = noise(8192, 7), out = in;
    unchanged.run(out);
    for (std::size_t i = 0; i < in.size(); ++i)
        ASSERT_NEAR(out[i], in[i], 1e-6f) << "flat changed sample " << i;

    auto peak = gainsWith(5, 6.0f);
    double centre = measuredGainDb(peak, 1000);
    EXPECT_NEAR(centre, 6.0, 0.5);
    for (double octave : {500.0, 2000.0}) { // a one-octave band reaches these a little
        EXPECT_LT(measuredGainDb(peak, octave), centre - 1.0) << octave;
        EXPECT_GT(measuredGainDb(peak, octave), 0.1) << octave;
    }
    EXPECT_NEAR(measuredGainDb(peak, 60), 0.0, 0.2);
    EXPECT_NEAR(measuredGainDb(gainsWith(5, -6.0f), 1000), -6.0, 0.5);
    for (auto [band, lifted] : {std::pair{0, 15.0}, {9, 19000.0}}) {
        EXPECT_GT(measuredGainDb(gainsWith(band, 6.0f), lifted), 5.0) << band;
        EXPECT_NEAR(measuredGainDb(gainsWith(band, 6.0f), 1000), 0.0, 0.2) << band;
    }
    // At 32 kHz the 16 kHz shelf cannot exist: raising it alone changes nothing but the
    // pre-gain, and raising every band keeps loud noise finite.
    EXPECT_NEAR(measuredGainDb(gainsWith(9, 12.0f), 15000, 32000), 0.0, 0.01);
    Eq top(std::vector<float>(10, 12.0f), 32000);
    auto signal = noise(64000, 11);
    top.run(signal);
    for (float v : signal)
        ASSERT_TRUE(std::isfinite(v) && std::abs(v) < 8.0f) << v;

    // The pre-gain takes back the largest boost, heard as a tone left where it was; gains
    // are held to 12 dB either way, and given bands only change.
    EXPECT_NEAR(measuredGainDb(peak, 1000, 44100, true), 0.0, 0.5);
    Equalizer eq;
    eq.apply({-2, -3, -3, 1, 4, 4, 3, 1, 0, -2}, true);
    EXPECT_EQ(eq.globalGain(), -4.0f);
    eq.apply({20, -30}, true);
    EXPECT_EQ(std::make_tuple(eq.bandGain(0), eq.bandGain(1), eq.bandGain(2), eq.globalGain()),
              std::make_tuple(12.0f, -12.0f, -3.0f, -20.0f));
    eq.apply({6, 5, 4}, false);
    EXPECT_EQ(eq.globalGain(), 0.0f);
}

// A damaged file's NaN and infinities come out as silence, steady or crossfading to
// bypass, and leave the filters clean for what follows.
TEST(EqualizerTest, BadSamplesLeaveTheFiltersClean) {
    for (bool crossfading : {false, true}) {
        Eq eq(gainsWith(5, -6), 48000);
        if (crossfading) eq.apply(gainsWith(5, -6), false);
        std::vector<float> bad(2048, std::numeric_limits<float>::quiet_NaN());
        for (std::size_t i = 0; i < bad.size(); i += 3)
            bad[i] = (i % 2 ? -1 : 1) * std::numeric_limits<float>::infinity();
        eq.run(bad);
        for (float v : bad)
            ASSERT_EQ(v, 0.0f);
        eq.apply(flat, true);
        auto in = sine(1000, 48000), out = in;
        eq.run(out);
        for (std::size_t i = in.size() / 2; i < in.size(); ++i)
            ASSERT_NEAR(out[i], in[i], 1e-3) << "sample " << i;
    }
}

using P = EqualizerPresets;

// Cycling wraps through the built-in presets then the user's; adjusting a band makes a
// custom curve, which is saved and chosen again under a folded name.
TEST(EqualizerPresets, CyclingSavingAndChoosing) {
    Settings s;
    EXPECT_EQ(P::preceding(s).name, "Acústica");
    EXPECT_EQ(P::following(s).name, "Rock");
    s.customPresets = {{"Otro", {}}};
    EXPECT_EQ(P::preceding(s).name, "Otro");
    s.eqPreset = "Acústica";
    EXPECT_EQ(P::following(s).name, "Otro");

    P::adjustBand(s, 1, 3.0f);
    EXPECT_EQ(s.eqPreset, "Personalizado");
    EXPECT_FALSE(P::savePreset(s, "jazz").ok); // a built-in name
    EXPECT_TRUE(P::savePreset(s, "Noche").ok);
    EXPECT_TRUE(P::choosePreset(s, "rôck").ok);
    EXPECT_EQ(s.eqGains, EQPreset::builtIn()[1].gains);
    EXPECT_TRUE(P::choosePreset(s, "NÓCHE").ok);
    EXPECT_EQ(s.eqPreset, "Noche");
    EXPECT_EQ(s.eqGains[1], 3.0f);
    EXPECT_FALSE(P::choosePreset(s, "Nada").ok);
}

} // namespace
} // namespace trovan
