#include "media/AudioDecoder.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <cmath>

namespace trovan {
namespace {

using fixtures::Format;

std::string make(Format format, int rate = 44100, int channels = 2, double seconds = 1.5) {
    fixtures::Tone t;
    t.format = format;
    t.sampleRate = rate;
    t.channels = channels;
    t.seconds = seconds;
    t.frequency = 330;
    std::string name = "dec-" + fixtures::name(format) + "-" + std::to_string(rate) + "-" +
                       std::to_string(channels) + "." + fixtures::extension(format);
    return fixtures::cached(name, t).string();
}

std::vector<float> decodeAll(AudioDecoder& d) {
    std::vector<float> all;
    std::vector<float> chunk(1000 * static_cast<std::size_t>(d.outputChannels()));
    while (std::size_t n = d.read(chunk.data(), 1000))
        all.insert(all.end(), chunk.begin(),
                   chunk.begin() + static_cast<std::ptrdiff_t>(n * d.outputChannels()));
    return all;
}

class AudioDecoderTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    }
};

TEST_F(AudioDecoderTest, LengthMatchesWhatDecodes) {
    for (Format f : {Format::flac, Format::wav, Format::aiff, Format::alac, Format::mp3,
                     Format::aac, Format::vorbis, Format::opus, Format::caf}) {
        SCOPED_TRACE(fixtures::name(f));
        auto path = make(f);
        AudioDecoder d(path);
        auto all = decodeAll(d);
        auto decoded = static_cast<int64_t>(all.size() / 2);
        const int64_t expected = static_cast<int64_t>(1.5 * d.sampleRate());
        EXPECT_EQ(d.outputChannels(), 2);
        EXPECT_EQ(d.position(), decoded);
        if (f == Format::flac || f == Format::wav || f == Format::aiff || f == Format::alac ||
            f == Format::caf) {
            EXPECT_EQ(decoded, expected);
            EXPECT_EQ(d.frames(), expected);
        } else {
            // Lossy codecs pad to whole packets; the reported length must stay close.
            EXPECT_NEAR(static_cast<double>(decoded), static_cast<double>(expected), 2200);
            EXPECT_NEAR(static_cast<double>(d.frames()), static_cast<double>(decoded), 2200);
        }
        double peak = 0;
        for (float v : all)
            peak = std::max(peak, std::abs(double(v)));
        EXPECT_GT(peak, 0.05);
        EXPECT_LE(peak, 1.0);
    }
}

TEST_F(AudioDecoderTest, SeeksLandOnTheExactFrame) {
    for (Format f : {Format::flac, Format::wav, Format::alac, Format::aiff, Format::mp3,
                     Format::aac, Format::vorbis, Format::opus}) {
        SCOPED_TRACE(fixtures::name(f));
        auto path = make(f);
        AudioDecoder linear(path);
        auto all = decodeAll(linear);
        const bool lossless =
            f == Format::flac || f == Format::wav || f == Format::alac || f == Format::aiff;
        AudioDecoder d(path);
        for (int64_t target :
             {int64_t{0}, int64_t{12345}, int64_t{1}, int64_t{40000}, int64_t{7}, int64_t{30001}}) {
            SCOPED_TRACE(target);
            ASSERT_TRUE(d.seek(target));
            EXPECT_EQ(d.position(), target);
            std::vector<float> got(512 * 2);
            ASSERT_EQ(d.read(got.data(), 512), 512u);
            double worst = 0;
            for (std::size_t i = 0; i < got.size(); ++i)
                worst = std::max(worst, std::abs(double(got[i]) -
                                                 all[static_cast<std::size_t>(target) * 2 + i]));
            if (lossless)
                EXPECT_EQ(worst, 0.0);
            else
                EXPECT_LT(worst, 1e-4); // one frame off would differ by ~4e-3 at 330 Hz
        }
        EXPECT_TRUE(d.seek(d.frames() + 1000));
        std::vector<float> tail(512 * 2);
        EXPECT_EQ(d.read(tail.data(), 512), 0u);
    }
}

TEST_F(AudioDecoderTest, ChannelsAreKeptOrMixedDownToStereo) {
    AudioDecoder mono(make(Format::flac, 22050, 1));
    EXPECT_EQ(mono.outputChannels(), 1);
    EXPECT_EQ(mono.description().channels, 1);
    EXPECT_EQ(mono.sampleRate(), 22050);

    AudioDecoder six(make(Format::flac, 48000, 6));
    EXPECT_EQ(six.outputChannels(), 2);
    EXPECT_EQ(six.description().channels, 6);
    auto all = decodeAll(six);
    EXPECT_EQ(all.size(), static_cast<std::size_t>(1.5 * 48000) * 2);
    double left = 0, right = 0;
    for (std::size_t i = 0; i < all.size(); i += 2) {
        left += double(all[i]) * all[i];
        right += double(all[i + 1]) * all[i + 1];
    }
    EXPECT_GT(left, 0.0);
    EXPECT_GT(right, 0.0);
}

TEST_F(AudioDecoderTest, BrokenFilesFailOrEndCleanly) {
    fixtures::TempDir dir;
    using fixtures::Broken;
    EXPECT_THROW(AudioDecoder((dir / "missing.flac").string()), AudioDecodeError);
    EXPECT_THROW(
        AudioDecoder(fixtures::writeBroken(dir.path(), "zero.mp3", Broken::zeroBytes).string()),
        AudioDecodeError);
    EXPECT_THROW(
        AudioDecoder(fixtures::writeBroken(dir.path(), "junk.flac", Broken::garbage).string()),
        AudioDecodeError);
    for (Format f : {Format::flac, Format::mp3, Format::aac, Format::wav}) {
        auto path = fixtures::writeBroken(dir.path(),
                                          "cut-" + fixtures::name(f) + "." + fixtures::extension(f),
                                          Broken::truncated, f);
        try {
            AudioDecoder d(path.string());
            auto all = decodeAll(d); // must come to an end
            EXPECT_LE(all.size() / 2, static_cast<std::size_t>(d.sampleRate()) * 2);
            d.seek(d.frames() / 2);
            decodeAll(d);
        } catch (const AudioDecodeError&) {
        }
    }
}

} // namespace
} // namespace trovan
