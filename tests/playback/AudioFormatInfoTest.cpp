#include "playback/AudioFormatInfo.h"
#include "media/AudioDecoder.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

namespace trovan {
namespace {

TEST(AudioFormatInfoTest, SummaryShowsWholeAndFractionalKilohertz) {
    EXPECT_EQ((AudioFormatInfo{"MP3", 48000, std::nullopt, 2}).summary(), "MP3 \u00B7 48 kHz");
    EXPECT_EQ((AudioFormatInfo{"FLAC", 88200, 24, 2}).summary(),
              "FLAC \u00B7 88.2 kHz \u00B7 24 bit");
    EXPECT_EQ((AudioFormatInfo{"WAV", 44100, 16, 1}).summary(),
              "WAV \u00B7 44.1 kHz \u00B7 16 bit");
    EXPECT_NE((AudioFormatInfo{"FLAC", 44100, 16, 2}),
              (AudioFormatInfo{"FLAC", 44100, std::nullopt, 2}));
}

TEST(AudioFormatInfoTest, GeneratedFilesDescribeThemselves) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    struct Case {
        fixtures::Format format;
        int rate;
        int depth;
        const char* name;
        const char* expected;
    };
    const Case cases[] = {
        {fixtures::Format::flac, 44100, 16, "f16.flac", "FLAC \u00B7 44.1 kHz \u00B7 16 bit"},
        {fixtures::Format::flac, 96000, 24, "f24.flac", "FLAC \u00B7 96 kHz \u00B7 24 bit"},
        {fixtures::Format::mp3, 48000, 16, "m.mp3", "MP3 \u00B7 48 kHz"},
        {fixtures::Format::aac, 44100, 16, "a.m4a", "AAC \u00B7 44.1 kHz"},
        {fixtures::Format::alac, 44100, 16, "l.m4a", "ALAC \u00B7 44.1 kHz \u00B7 16 bit"},
        {fixtures::Format::wav, 44100, 16, "w.wav", "WAV \u00B7 44.1 kHz \u00B7 16 bit"},
        {fixtures::Format::aiff, 48000, 24, "i.aiff", "AIFF \u00B7 48 kHz \u00B7 24 bit"},
        {fixtures::Format::aifc, 44100, 16, "c.aifc", "AIFF \u00B7 44.1 kHz \u00B7 16 bit"},
        {fixtures::Format::vorbis, 44100, 16, "v.ogg", "OGG \u00B7 44.1 kHz"},
    };
    for (const auto& c : cases) {
        fixtures::Tone tone;
        tone.format = c.format;
        tone.sampleRate = c.rate;
        tone.bitDepth = c.depth;
        tone.seconds = 0.2;
        auto path = fixtures::cached(std::string("info-") + c.name, tone).string();
        AudioDecoder decoder(path);
        auto info = AudioFormatInfo::describe(decoder.description(), path);
        EXPECT_EQ(info.summary(), c.expected) << c.name;
        EXPECT_EQ(info.channels, 2) << c.name;
    }
}

} // namespace
} // namespace trovan
