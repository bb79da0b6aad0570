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
    // stores 2 channels for AAC in MP4. ALAC of noise lies well above 400 kb/s.
    struct Case {
        fx::Format format;
        const char* codec;
        int rate, channels;
    };
    const Case cases[] = {
        {fx::Format::flac, "FLAC", 44100, 2}, {fx::Format::mp3, "MP3", 48000, 1},
        {fx::Format::aac, "AAC", 32000, 2},   {fx::Format::alac, "ALAC", 48000, 2},
        {fx::Format::adts, "AAC", 48000, 1},  {fx::Format::wav, "WAV", 32000, 2},
        {fx::Format::aiff, "AIFF", 44100, 1}, {fx::Format::aifc, "AIFF", 48000, 2},
        {fx::Format::caf, "CAF", 32000, 1},   {fx::Format::vorbis, "OGG", 44100, 2},
        {fx::Format::opus, "OPUS", 48000, 1}, {fx::Format::oggFlac, "OGA", 32000, 2}};
    const auto& taggable = fx::taggableFormats();
    for (const auto& c : cases) {
        SCOPED_TRACE(fx::name(c.format));
        const bool tagged = std::count(taggable.begin(), taggable.end(), c.format) > 0;
        fx::Tone tone{.format = c.format,
                      .wave = c.format == fx::Format::alac ? fx::Wave::noise : fx::Wave::sine,
                      .seconds = 2.5,
                      .sampleRate = c.rate,
                      .channels = c.channels,
                      .bitDepth = c.format == fx::Format::flac ? 24 : 16};
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
        auto name = c.format == fx::Format::mp3 ? std::string("TONE.MP3")
                                                : "tone." + fx::extension(c.format);
        auto path = fx::cached(name, tone);
        auto probe = fx::probe(path);
        ASSERT_TRUE(probe);

        auto track = Track::read(path.string());
        ASSERT_TRUE(track);
        EXPECT_EQ(track->path, path.string());
        EXPECT_EQ(track->size, static_cast<int64_t>(std::filesystem::file_size(path)));
        EXPECT_GT(track->mtime, 1.0e9);
        EXPECT_EQ(track->codec, c.codec);
        EXPECT_EQ(track->sampleRate, probe->sampleRate);
        EXPECT_EQ(track->channels, probe->channels);
        EXPECT_GT(track->durationMs, 0);
        EXPECT_LT(std::abs(track->durationMs / 1000.0 - probe->seconds), 1.0);
        // Formats TagLib cannot open are read through FFmpeg alone: no tags, no bitrate.
        EXPECT_EQ(track->bitrate > 0, tagged);
        const std::tuple<std::string, std::string, std::string, std::string, std::string, int64_t,
                         int64_t, int64_t>
            tags = {"Canción de prueba", "Ñandú", "Varios", "Álbum ☃", "Jazz", 1999, 3, 2};
        EXPECT_EQ(std::tie(track->title, track->artist, track->albumArtist, track->album,
                           track->genre, track->year, track->trackNumber, track->discNumber),
                  tagged ? tags : decltype(tags){});
    }
}

TEST(TrackRead, MissingAndBrokenFilesGiveNothingAndNeverCrash) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    EXPECT_FALSE(Track::read((dir / "nope.flac").string()));
    EXPECT_FALSE(Track::read(dir.path().string())); // a folder is not audio
    for (std::string ext : {"flac", "mp3", "m4a", "wav", "aiff", "ogg", "opus", "caf", "aac"}) {
        SCOPED_TRACE(ext);
        EXPECT_FALSE(Track::read(fx::writeBroken(dir.path(), "0." + ext, fx::Broken::zeroBytes)));
        EXPECT_FALSE(Track::read(fx::writeBroken(dir.path(), "g." + ext, fx::Broken::garbage)));
    }
    for (auto basis : {fx::Format::flac, fx::Format::mp3, fx::Format::aac, fx::Format::wav,
                       fx::Format::vorbis, fx::Format::caf}) {
        auto cut = "cut." + fx::extension(basis);
        (void)Track::read(fx::writeBroken(dir.path(), cut, fx::Broken::truncated, basis));
    }
}

TEST(Track, LeadingIntAndCodecLabels) {
    const std::pair<std::optional<std::string>, int64_t> ints[] = {
        {"3/12", 3},
        {"2024-05-01", 2024},
        {" 07 ", 7},
        {"\t9\t", 9},
        {"12abc", 12},
        {"-1", 0},
        {"abc", 0},
        {std::nullopt, 0},
        {"\n5", 0},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", 0},
        {"٣", 0},
        {"1½", 0}};
    for (const auto& [in, out] : ints)
        EXPECT_EQ(Track::leadingInt(in), out) << in.value_or("(none)");

    // MPEG-4 above 400 kb/s is Apple Lossless.
    const std::tuple<const char*, int, const char*> labels[] = {
        {"m4a", 256, "AAC"}, {"m4b", 400, "AAC"}, {"mp4", 401, "ALAC"},   {"aifc", 0, "AIFF"},
        {"aif", 0, "AIFF"},  {"ogg", 0, "OGG"},   {"flac", 1000, "FLAC"}, {"", 0, ""}};
    for (const auto& [ext, kbps, label] : labels)
        EXPECT_EQ(Track::codecLabel(ext, kbps), label) << ext << " " << kbps;
}

TEST(Track, DerivedNamesIdentityAndExtensions) {
    Track a{.path = "/m/01 Song.flac"};
    EXPECT_EQ(a.displayTitle(), "01 Song");
    EXPECT_EQ(a.displayArtist(), "Artista desconocido");
    EXPECT_EQ(a.groupArtist(), "Artista desconocido");
    a.path = "/m/noext";
    EXPECT_EQ(a.displayTitle(), "noext");
    a.artist = "A";
    a.albumArtist = "B";
    EXPECT_EQ(a.groupArtist(), "B");
    EXPECT_EQ(a.displayArtist(), "A");

    Track b = a;
    b.mtime = 5;
    EXPECT_NE(a, b);
    EXPECT_EQ(a.id(), b.id());
    a.mtime = 0.0;
    b.mtime = -0.0;
    EXPECT_EQ(a, b);
    EXPECT_EQ(TrackHash{}(a), TrackHash{}(b));

    for (const char* audio : {"/x/a.FLAC", "/x/a.Opus", "/x.y/.a.mp3"})
        EXPECT_TRUE(Track::isAudioPath(audio)) << audio;
    for (const char* other : {"/x/a.txt", "/x.mp3/readme", "/x/flac"})
        EXPECT_FALSE(Track::isAudioPath(other)) << other;
    EXPECT_EQ(Track::audioExtensions().size(), 14u);
}
