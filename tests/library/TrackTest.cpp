#include "library/Track.h"
#include "support/Fixtures.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

using namespace trovan;
namespace fx = trovan::fixtures;

namespace {

std::string expectedCodec(fx::Format f) {
    switch (f) {
    case fx::Format::flac:
        return "FLAC";
    case fx::Format::mp3:
        return "MP3";
    case fx::Format::aac:
        return "AAC";
    case fx::Format::alac:
        return "ALAC";
    case fx::Format::adts:
        return "AAC";
    case fx::Format::wav:
        return "WAV";
    case fx::Format::aiff:
    case fx::Format::aifc:
        return "AIFF";
    case fx::Format::caf:
        return "CAF";
    case fx::Format::vorbis:
        return "OGG";
    case fx::Format::opus:
        return "OPUS";
    case fx::Format::oggFlac:
        return "OGA";
    }
    return "";
}

bool taggable(fx::Format f) {
    const auto& list = fx::taggableFormats();
    return std::find(list.begin(), list.end(), f) != list.end();
}

} // namespace

TEST(TrackRead, EveryFormatMatchesTheProbe) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    int variant = 0;
    for (auto format : fx::allFormats()) {
        SCOPED_TRACE(fx::name(format));
        fx::Tone tone;
        tone.format = format;
        tone.seconds = 2.5;
        // Vary rate and layout across formats; Opus always runs at 48 kHz.
        tone.sampleRate = (variant % 3 == 1) ? 48000 : (variant % 3 == 2 ? 32000 : 44100);
        tone.channels = variant % 2 == 0 ? 2 : 1;
        if (format == fx::Format::aac) tone.channels = 2; // FFmpeg stores 2 for AAC in MP4
        if (format == fx::Format::alac) {
            tone.wave = fx::Wave::noise; // incompressible, so well above 400 kb/s
            tone.sampleRate = 48000;
            tone.channels = 2;
        }
        if (format == fx::Format::flac) tone.bitDepth = 24;
        if (taggable(format))
            tone.tags = {{"TITLE", {"Canción de prueba"}},
                         {"ARTIST", {"Ñandú", "Otro"}},
                         {"ALBUMARTIST", {"Varios"}},
                         {"ALBUM", {"Álbum ☃"}},
                         {"GENRE", {"Jazz"}},
                         {"DATE", {"1999-03-01"}},
                         {"TRACKNUMBER", {"3/12"}},
                         {"DISCNUMBER", {" 2 "}}};
        ++variant;
        auto path = fx::cached("tone." + fx::extension(format), tone);
        auto probe = fx::probe(path);
        ASSERT_TRUE(probe);

        auto track = Track::read(path.string());
        ASSERT_TRUE(track);
        EXPECT_EQ(track->path, path.string());
        EXPECT_EQ(track->size, static_cast<int64_t>(std::filesystem::file_size(path)));
        EXPECT_GT(track->mtime, 1.0e9);
        EXPECT_EQ(track->codec, expectedCodec(format));
        EXPECT_EQ(track->sampleRate, probe->sampleRate);
        EXPECT_EQ(track->channels, probe->channels);
        // Durations agree to the second (TagLib reports whole seconds).
        EXPECT_LT(std::abs(track->durationMs / 1000.0 - probe->seconds), 1.0)
            << track->durationMs << " vs " << probe->seconds;
        EXPECT_EQ(track->durationMs > 0, true);

        if (taggable(format)) {
            EXPECT_EQ(track->title, "Canción de prueba");
            EXPECT_EQ(track->artist, "Ñandú");
            EXPECT_EQ(track->albumArtist, "Varios");
            EXPECT_EQ(track->album, "Álbum ☃");
            EXPECT_EQ(track->genre, "Jazz");
            EXPECT_EQ(track->year, 1999);
            EXPECT_EQ(track->trackNumber, 3);
            EXPECT_EQ(track->discNumber, 2);
            EXPECT_GT(track->bitrate, 0);
        } else {
            // Read through FFmpeg alone: no tags, no bitrate.
            EXPECT_EQ(track->title, "");
            EXPECT_EQ(track->bitrate, 0);
        }
        if (format == fx::Format::alac) {
            EXPECT_GT(track->bitrate, 400);
        }
        if (format == fx::Format::aac) {
            EXPECT_LE(track->bitrate, 400);
        }
    }
}

TEST(TrackRead, UntaggedFileFallsBackToItsName) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::Tone tone;
    tone.format = fx::Format::mp3;
    auto track = Track::read(fx::cached("01 Song.MP3", tone).string());
    ASSERT_TRUE(track);
    EXPECT_EQ(track->title, "");
    EXPECT_EQ(track->artist, "");
    EXPECT_EQ(track->albumArtist, "");
    EXPECT_EQ(track->year, 0);
    EXPECT_EQ(track->trackNumber, 0);
    EXPECT_EQ(track->codec, "MP3");
    EXPECT_EQ(track->displayTitle(), "01 Song");
    EXPECT_EQ(track->displayArtist(), "Artista desconocido");
    EXPECT_EQ(track->groupArtist(), "Artista desconocido");
}

TEST(TrackRead, MissingAndBrokenFilesGiveNothingAndNeverCrash) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    EXPECT_FALSE(Track::read((dir / "nope.flac").string()));
    EXPECT_FALSE(Track::read(dir.path().string())); // a folder is not audio

    for (const auto* ext : {"flac", "mp3", "m4a", "wav", "aiff", "ogg", "opus", "caf", "aac"}) {
        SCOPED_TRACE(ext);
        auto empty =
            fx::writeBroken(dir.path(), std::string("empty.") + ext, fx::Broken::zeroBytes);
        EXPECT_FALSE(Track::read(empty.string()));
        auto junk = fx::writeBroken(dir.path(), std::string("junk.") + ext, fx::Broken::garbage);
        auto read = Track::read(junk.string()); // fixed bytes, so the outcome is stable
        EXPECT_FALSE(read);
    }
    for (auto basis : {fx::Format::flac, fx::Format::mp3, fx::Format::aac, fx::Format::wav,
                       fx::Format::vorbis, fx::Format::caf}) {
        SCOPED_TRACE(fx::name(basis));
        auto cut = fx::writeBroken(dir.path(), "cut." + fx::extension(basis), fx::Broken::truncated,
                                   basis);
        (void)Track::read(cut.string()); // must simply return
    }
}

TEST(Track, LeadingInt) {
    struct Case {
        std::optional<std::string> in;
        int64_t out;
    };
    const Case cases[] = {
        {"3/12", 3},
        {"2024-05-01", 2024},
        {" 07 ", 7},
        {"\t9\t", 9},
        {"12abc", 12},
        {"-1", 0},
        {"abc", 0},
        {"", 0},
        {std::nullopt, 0},
        {"\n5", 0},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", 0},
        {"½", 0},
        {"٣", 0},
        {"1½", 0}, // numeric prefix that does not parse as a whole
    };
    for (const auto& c : cases)
        EXPECT_EQ(Track::leadingInt(c.in), c.out) << c.in.value_or("(none)");
}

TEST(Track, CodecLabels) {
    EXPECT_EQ(Track::codecLabel("m4a", 256), "AAC");
    EXPECT_EQ(Track::codecLabel("m4a", 900), "ALAC");
    EXPECT_EQ(Track::codecLabel("m4b", 400), "AAC");
    EXPECT_EQ(Track::codecLabel("mp4", 401), "ALAC");
    EXPECT_EQ(Track::codecLabel("aifc", 0), "AIFF");
    EXPECT_EQ(Track::codecLabel("aif", 0), "AIFF");
    EXPECT_EQ(Track::codecLabel("ogg", 0), "OGG");
    EXPECT_EQ(Track::codecLabel("flac", 1000), "FLAC");
    EXPECT_EQ(Track::codecLabel("", 0), "");
}

TEST(Track, IdentityDerivedNamesAndExtensions) {
    Track a;
    a.path = "/m/01 Song.flac";
    EXPECT_EQ(a.displayTitle(), "01 Song");
    a.path = "/m/noext";
    EXPECT_EQ(a.displayTitle(), "noext");
    a.artist = "A";
    a.albumArtist = "B";
    EXPECT_EQ(a.groupArtist(), "B");
    EXPECT_EQ(a.displayArtist(), "A");
    a.albumArtist.clear();
    EXPECT_EQ(a.groupArtist(), "A");

    Track b = a;
    b.mtime = 5;
    EXPECT_NE(a, b);
    EXPECT_EQ(a.id(), b.id());
    a.mtime = 0.0;
    b.mtime = -0.0;
    EXPECT_EQ(a, b);
    EXPECT_EQ(TrackHash{}(a), TrackHash{}(b));

    EXPECT_TRUE(Track::isAudioPath("/x/a.FLAC"));
    EXPECT_TRUE(Track::isAudioPath("/x/a.Opus"));
    EXPECT_TRUE(Track::isAudioPath("/x.y/.a.mp3")); // hidden files are the walk's business
    EXPECT_FALSE(Track::isAudioPath("/x/a.txt"));
    EXPECT_FALSE(Track::isAudioPath("/x.mp3/readme"));
    EXPECT_FALSE(Track::isAudioPath("/x/flac"));
    EXPECT_EQ(Track::audioExtensions().size(), 14u);
}
