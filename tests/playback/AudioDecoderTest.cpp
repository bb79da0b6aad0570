// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/AudioDecoder.h"
#include "EngineHarness.h"
#include "playback/AudioFormatInfo.h"

#include <gtest/gtest.h>

#include <cmath>

namespace trovan {
namespace {

using fixtures::Format;
using fixtures::Wave;

// Per file: the summary shown to the user, the channels delivered (more than two are
// mixed down) and the length. Every seek, close to the start, to the end or in between,
// lands on the frame a straight decode reaches there; a seek past the end reads nothing.
// The longer Vorbis file's last page has its own timestamps.
TEST(AudioDecoderTest, FormatsDescribeThemselvesDecodeWholeAndSeekExactly) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    struct Case {
        Format format;
        int rate, depth = 16, channels = 2;
        const char* summary = nullptr; // nullptr: no fixed summary to check
        double seconds = 1;
    };
    const Case cases[] = {
        {Format::flac, 44100, 16, 2, "FLAC \u00B7 44.1 kHz \u00B7 16 bit"},
        {Format::flac, 96000, 24, 2, "FLAC \u00B7 96 kHz \u00B7 24 bit"},
        {Format::mp3, 48000, 16, 2, "MP3 \u00B7 48 kHz"},
        {Format::aac, 44100, 16, 2, "AAC \u00B7 44.1 kHz"},
        {Format::alac, 44100, 16, 2, "ALAC \u00B7 44.1 kHz \u00B7 16 bit"},
        {Format::wav, 44100, 16, 2, "WAV \u00B7 44.1 kHz \u00B7 16 bit"},
        {Format::aiff, 48000, 24, 2, "AIFF \u00B7 48 kHz \u00B7 24 bit"},
        {Format::aifc, 44100, 16, 2, "AIFF \u00B7 44.1 kHz \u00B7 16 bit"},
        {Format::vorbis, 44100, 16, 2, "OGG \u00B7 44.1 kHz"},
        {Format::vorbis, 44100, 16, 2, nullptr, 5},
        {Format::opus, 48000},
        {Format::caf, 44100},
        {Format::oggFlac, 44100},
        {Format::flac, 44100, 16, 1},
        {Format::flac, 48000, 16, 6},
    };
    for (const auto& c : cases) {
        const fixtures::Tone tone{c.format, Wave::sine, 330,    c.seconds,
                                  c.rate,   c.channels, c.depth};
        auto path = testing::tone(
            "dec-" + std::to_string(&c - cases) + "." + fixtures::extension(c.format), tone);
        SCOPED_TRACE(path);
        AudioDecoder linear(path);
        auto info = AudioFormatInfo::describe(linear.description(), path);
        if (c.summary) {
            EXPECT_EQ(info.summary(), c.summary);
        }
        EXPECT_EQ(info.channels, c.channels);
        const auto channels = static_cast<std::size_t>(std::min(c.channels, 2));
        ASSERT_EQ(linear.outputChannels(), int(channels));
        std::vector<float> all, chunk(1000 * channels); // read in pieces, as the engine does
        while (std::size_t n = linear.read(chunk.data(), 1000))
            all.insert(all.end(), chunk.begin(), chunk.begin() + std::ptrdiff_t(n * channels));
        const auto total = static_cast<int64_t>(all.size() / channels);
        EXPECT_EQ(linear.position(), total);
        const bool lossy = c.format == Format::mp3 || c.format == Format::aac ||
                           c.format == Format::vorbis || c.format == Format::opus;
        // Lossy codecs pad to whole packets; the reported length must stay close.
        EXPECT_NEAR(double(total), c.seconds * c.rate, lossy ? 2200 : 0);
        EXPECT_NEAR(double(linear.frames()), double(total), lossy ? 2200 : 0);
        for (std::size_t ch = 0; ch < channels; ++ch) {
            float peak = 0;
            for (std::size_t i = ch; i < all.size(); i += channels)
                peak = std::max(peak, std::abs(all[i]));
            EXPECT_TRUE(peak > 0.05f && peak <= 1.0f) << "channel " << ch << " peaks at " << peak;
        }

        AudioDecoder d(path);
        std::vector<float> got(256 * channels);
        for (int64_t target :
             {total - 1, int64_t{2}, total - 700, int64_t{130}, total - 2500, int64_t{12345},
              int64_t{1}, total - 50000, int64_t{0}, int64_t{30001}, int64_t{7}}) {
            if (target < 0) continue;
            ASSERT_TRUE(d.seek(target));
            EXPECT_EQ(d.position(), target);
            const auto want = static_cast<std::size_t>(std::min<int64_t>(256, total - target));
            ASSERT_EQ(d.read(got.data(), 256), want) << "seek to " << target;
            double worst = 0;
            for (std::size_t i = 0; i < want * channels; ++i)
                worst = std::max(
                    worst, std::abs(double(got[i]) - all[std::size_t(target) * channels + i]));
            // One frame off would differ by ~4e-3 at 330 Hz.
            EXPECT_LE(worst, lossy ? 1e-4 : 0.0) << "seek to " << target;
        }
        EXPECT_TRUE(d.seek(total + 5));
        EXPECT_EQ(d.read(got.data(), 256), 0u);
    }
}

} // namespace
} // namespace trovan
