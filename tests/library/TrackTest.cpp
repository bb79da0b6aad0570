// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/Track.h"
#include "support/Fixtures.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

using namespace trovan;
namespace fx = trovan::fixtures;

TEST(TrackRead, EveryFormatMatchesTheProbe) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    // Rates and layouts vary across formats; Opus always runs at 48 kHz, and FFmpeg
    // stores 2 channels for AAC in MP4. Mono ALAC at 8 kHz runs at an AAC-like bitrate
    // and is still named ALAC.
    const std::tuple<fx::Format, const char*, int, int> cases[] = {
        {fx::Format::flac, "FLAC", 44100, 2}, {fx::Format::mp3, "MP3", 48000, 1},
        {fx::Format::aac, "AAC", 32000, 2},   {fx::Format::alac, "ALAC", 8000, 1},
        {fx::Format::adts, "AAC", 48000, 1},  {fx::Format::wav, "WAV", 32000, 2},
        {fx::Format::aiff, "AIFF", 44100, 1}, {fx::Format::aifc, "AIFF", 48000, 2},
        {fx::Format::caf, "CAF", 32000, 1},   {fx::Format::vorbis, "OGG", 44100, 2},
        {fx::Format::opus, "OPUS", 48000, 1}, {fx::Format::oggFlac, "OGA", 32000, 2}};
    using Tags = std::tuple<std::string, std::string, std::string, std::string, std::string,
                            int64_t, int64_t, int64_t>;
    const Tags tags = {"Canción de prueba", "Ñandú", "Varios", "Álbum ☃", "Jazz", 1999, 3, 2};
    const auto& taggable = fx::taggableFormats();
    for (const auto& [format, codec, rate, channels] : cases) {
        SCOPED_TRACE(fx::name(format));
        const bool tagged = std::count(taggable.begin(), taggable.end(), format) > 0;
        fx::Tone tone{.format = format,
                      .seconds = 2.5,
                      .sampleRate = rate,
                      .channels = channels,
                      .bitDepth = format == fx::Format::flac ? 24 : 16};
        if (tagged)
            tone.tags = {{"TITLE", {"Canción de prueba"}},
                         {"ARTIST", {"Ñandú", "Otro"}},
                         {"ALBUMARTIST", {"Varios"}},
                         {"ALBUM", {"Álbum ☃"}},
                         {"GENRE", {"Jazz"}},
                         {"DATE", {"1999-03-01"}},
                         {"TRACKNUMBER", {"3/12"}},
                         {"DISCNUMBER", {" 2 "}}};
        // An upper-case extension reads like a lower-case one.
        auto path = fx::cached(format == fx::Format::mp3 ? std::string("TONE.MP3")
                                                         : "tone." + fx::extension(format),
                               tone);
        auto probe = fx::probe(path);
        auto track = Track::read(path.string());
        ASSERT_TRUE(probe && track);
        EXPECT_EQ(track->path, path.string());
        EXPECT_EQ(track->size, static_cast<int64_t>(std::filesystem::file_size(path)));
        EXPECT_GT(track->mtime, 1.0e9);
        EXPECT_EQ(std::tie(track->codec, track->sampleRate, track->channels),
                  std::make_tuple(codec, int64_t(probe->sampleRate), int64_t(probe->channels)));
        // Milliseconds are kept: 2.5 s is not 2 s.
        EXPECT_NEAR(track->durationMs / 1000.0, probe->seconds, 0.1);
        // Formats TagLib cannot open are read through FFmpeg alone: no tags, no bitrate.
        EXPECT_EQ(track->bitrate > 0, tagged);
        EXPECT_EQ(std::tie(track->title, track->artist, track->albumArtist, track->album,
                           track->genre, track->year, track->trackNumber, track->discNumber),
                  tagged ? tags : Tags{});
    }
    fx::TempDir dir;
    EXPECT_FALSE(Track::read((dir / "nope.flac").string()));
    EXPECT_FALSE(Track::read(dir.path().string())); // a folder is not audio
}

// What taggers write reads as a gain, a peak or an R128 gain; anything else is refused.
TEST(ReplayGainTags, ParseWhatTaggersWriteAndRefuseTheRest) {
    using G = std::optional<double>;
    const G none;
    const std::tuple<const char*, G, G, G> cases[] = {
        {"-6.20 dB", -6.2, none, none},
        {"  -3 DB ", -3.0, none, none},
        {"\xE2\x88\x92"
         "4.5 dB",
         -4.5, none, none},              // a real minus sign
        {"-6,25 dB", -6.25, none, none}, // a comma for the point
        {"0.988553", 0.988553, 0.988553, none},
        {"-1536", none, none, -1.0}, // R128: -6 dB against -23 LUFS is -1 dB against -18
        {"11", 11.0, none, 5.0 + 11 / 256.0},
        {"", none, none, none},
        {"+inf dB", none, none, none},
        {"-99999", none, none, none},
        {"-6.0 dB -3.0 dB", none, none, none},
        {"1e3", none, none, none},
    };
    for (const auto& [text, gain, peak, r128] : cases)
        EXPECT_EQ(std::tuple(ReplayGain::parseGain(text), ReplayGain::parsePeak(text),
                             ReplayGain::parseR128(text)),
                  std::tuple(gain, peak, r128))
            << text;
}

TEST(ReplayGainTags, ReadFromFilesOfEachKind) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto flac = fx::write(dir.path(), "rg.flac",
                          {.tags = {{"REPLAYGAIN_TRACK_GAIN", {"-6.00 dB"}},
                                    {"REPLAYGAIN_TRACK_PEAK", {"0.5"}},
                                    {"REPLAYGAIN_ALBUM_GAIN", {"abc", "-7.5 dB"}},
                                    {"REPLAYGAIN_ALBUM_PEAK", {"-1"}}}});
    auto rg = Track::read(flac.string())->replayGain;
    EXPECT_EQ(rg, (ReplayGain{-6.0, 0.5, std::nullopt, std::nullopt}));
    auto mp3 = fx::write(dir.path(), "rg.mp3",
                         {.format = fx::Format::mp3,
                          .tags = {{"REPLAYGAIN_ALBUM_GAIN", {"+2.25 dB"}},
                                   {"REPLAYGAIN_ALBUM_PEAK", {"1.100000"}}}});
    EXPECT_EQ(Track::read(mp3.string())->replayGain,
              (ReplayGain{std::nullopt, std::nullopt, 2.25, 1.1}));
    auto opus = fx::write(dir.path(), "rg.opus",
                          {.format = fx::Format::opus,
                           .sampleRate = 48000,
                           .tags = {{"R128_TRACK_GAIN", {"-2560"}}, {"R128_ALBUM_GAIN", {"x"}}}});
    EXPECT_EQ(Track::read(opus.string())->replayGain,
              (ReplayGain{-5.0, std::nullopt, std::nullopt, std::nullopt}));
}
