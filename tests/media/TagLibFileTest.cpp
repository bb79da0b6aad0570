#include "media/TagLibFile.h"
#include "media/AudioFileProbe.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

using namespace trovan;
namespace fx = trovan::fixtures;

namespace {

bool isMp4(fx::Format f) {
    return f == fx::Format::aac || f == fx::Format::alac;
}

// A file with a two-valued artist, non-ASCII text and three pictures, the first of
// which is the red JPEG front cover.
fx::Tone richTone(fx::Format format) {
    fx::Tone tone;
    tone.format = format;
    tone.seconds = 1.0;
    tone.tags = {{"TITLE", {"Canción ñ 日本"}},
                 {"ARTIST", {"Uno", "Dos"}},
                 {"ALBUM", {"Álbum"}},
                 {"GENRE", {"Rock"}}};
    tone.covers = {fx::Cover{},
                   fx::Cover{fx::ImageKind::png, 8, 8, "blue", std::nullopt, 4, "contraportada"},
                   fx::Cover{fx::ImageKind::jpeg, 12, 12, "green", std::string(""), 0, "otra"}};
    return tone;
}

Picture pictureOf(const fx::Cover& cover) {
    return {fx::image(cover), cover.kind == fx::ImageKind::png ? "image/png" : "image/jpeg"};
}

} // namespace

TEST(TagLibFile, RoundTripsTagsAndPicturesOnEveryFormat) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    const Picture png =
        pictureOf(fx::Cover{fx::ImageKind::png, 20, 10, "yellow", std::nullopt, 3, ""});
    for (auto format : fx::taggableFormats()) {
        SCOPED_TRACE(fx::name(format));
        auto tone = richTone(format);
        auto path = fx::copyTo(fx::cached("rich." + fx::extension(format), tone), dir.path());
        ASSERT_EQ(fx::storedPictures(path).size(), 3u);

        {
            auto file = TagLibFile::open(path.string());
            ASSERT_TRUE(file);
            EXPECT_EQ(file->value("TITLE"), "Canción ñ 日本");
            EXPECT_EQ(file->value("ARTIST"), "Uno");
            EXPECT_EQ(file->value("COMPOSER"), std::nullopt);
            auto props = file->properties();
            EXPECT_EQ(props["ARTIST"], (std::vector<std::string>{"Uno", "Dos"}));
            EXPECT_EQ(file->picture(), pictureOf(tone.covers[0]));

            file->set("ARTIST", {"Ünø", "Ｄｏｓ"});
            file->append("ARTIST", {"Tres"});
            file->set("TITLE", {"Título nuevo ☃"});
            file->remove("GENRE");
            EXPECT_EQ(file->value("GENRE"), std::nullopt); // visible before saving
            ASSERT_TRUE(file->setPicture(png));
            ASSERT_TRUE(file->save());
        }
        {
            auto file = TagLibFile::open(path.string());
            ASSERT_TRUE(file);
            auto props = file->properties();
            EXPECT_EQ(props["ARTIST"], (std::vector<std::string>{"Ünø", "Ｄｏｓ", "Tres"}));
            EXPECT_EQ(file->value("TITLE"), "Título nuevo ☃");
            EXPECT_EQ(file->value("ALBUM"), "Álbum");
            EXPECT_FALSE(props.contains("GENRE"));
            EXPECT_EQ(file->picture(), png);
        }
        auto stored = fx::storedPictures(path);
        ASSERT_EQ(stored.size(), 1u);
        EXPECT_EQ(stored[0].data, png.data);
        EXPECT_EQ(stored[0].mimeType, "image/png");
        EXPECT_EQ(stored[0].description, "");
        if (!isMp4(format)) {
            EXPECT_EQ(stored[0].pictureType, 3); // front cover
        }
        EXPECT_TRUE(fx::decodes(path));
        {
            auto file = TagLibFile::open(path.string());
            ASSERT_TRUE(file);
            ASSERT_TRUE(file->setPicture(std::nullopt));
            ASSERT_TRUE(file->save());
        }
        EXPECT_TRUE(fx::storedPictures(path).empty());
        EXPECT_FALSE(TagLibFile::open(path.string())->picture());
        EXPECT_TRUE(fx::decodes(path));
    }
}

TEST(TagLibFile, PictureWithoutMimeTypeReadsAsJpeg) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    for (auto format : fx::taggableFormats()) {
        SCOPED_TRACE(fx::name(format));
        fx::Tone tone;
        tone.format = format;
        tone.seconds = 0.5;
        fx::Cover bare{fx::ImageKind::png, 8, 8, "white", std::string(""), 3, ""};
        tone.covers = {bare};
        auto file = TagLibFile::open(fx::cached("bare." + fx::extension(format), tone).string());
        ASSERT_TRUE(file);
        auto picture = file->picture();
        ASSERT_TRUE(picture);
        EXPECT_EQ(picture->mimeType, "image/jpeg");
        EXPECT_EQ(picture->data, fx::image(bare));
    }
}

TEST(TagLibFile, MpegGetsId3v24AndNoNewId3v1) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    fx::Tone tone;
    tone.format = fx::Format::mp3;
    tone.seconds = 0.5;
    auto path = fx::copyTo(fx::cached("plain.mp3", tone), dir.path());
    auto file = TagLibFile::open(path.string());
    ASSERT_TRUE(file);
    file->set("TITLE", {"Ünicode"});
    ASSERT_TRUE(file->save());
    auto tags = fx::mpegTags(path);
    EXPECT_TRUE(tags.id3v2);
    EXPECT_EQ(tags.id3v2Version, 4);
    EXPECT_FALSE(tags.id3v1);
    EXPECT_FALSE(tags.ape);
    EXPECT_EQ(TagLibFile::open(path.string())->value("TITLE"), "Ünicode");
}

TEST(TagLibFile, AudioProperties) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    struct Case {
        fx::Format format;
        int bitDepth;
        int expectedBits;
        std::string codec;
    };
    const Case cases[] = {{fx::Format::flac, 16, 16, ""},     {fx::Format::flac, 24, 24, ""},
                          {fx::Format::wav, 24, 24, ""},      {fx::Format::aiff, 16, 16, ""},
                          {fx::Format::alac, 16, 16, "ALAC"}, {fx::Format::alac, 24, 24, "ALAC"},
                          {fx::Format::aac, 16, 0, "AAC"},    {fx::Format::mp3, 16, 0, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(fx::name(c.format) + std::to_string(c.bitDepth));
        fx::Tone tone;
        tone.format = c.format;
        tone.bitDepth = c.bitDepth;
        tone.sampleRate = 48000;
        // FFmpeg's MP4 writer always stores a channel count of 2 for AAC, and TagLib
        // reports that stored count, so AAC is tested in stereo.
        tone.channels = c.format == fx::Format::aac ? 2 : 1;
        tone.seconds = 1.0;
        auto path =
            fx::cached("props" + std::to_string(c.bitDepth) + "." + fx::extension(c.format), tone);
        auto file = TagLibFile::open(path.string());
        ASSERT_TRUE(file);
        auto props = file->audioProperties();
        ASSERT_TRUE(props);
        EXPECT_EQ(props->bitsPerSample, c.expectedBits);
        EXPECT_EQ(props->codec, c.codec);
        EXPECT_EQ(props->sampleRate, 48000);
        EXPECT_EQ(props->channels, tone.channels);
        EXPECT_NEAR(props->lengthMs, 1000, 60);
        EXPECT_GT(props->bitrate, 0);
    }
}

TEST(TagLibFile, UnopenableFilesGiveNothing) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    EXPECT_FALSE(TagLibFile::open((dir / "missing.flac").string()));
    EXPECT_FALSE(TagLibFile::open(dir.path().string()));
    EXPECT_FALSE(
        TagLibFile::open(fx::writeBroken(dir.path(), "z.flac", fx::Broken::zeroBytes).string()));
    EXPECT_FALSE(
        TagLibFile::open(fx::writeBroken(dir.path(), "g.m4a", fx::Broken::garbage).string()));
    EXPECT_FALSE(
        TagLibFile::open(fx::writeBroken(dir.path(), "g.ogg", fx::Broken::garbage).string()));
    fx::Tone caf;
    caf.format = fx::Format::caf;
    EXPECT_FALSE(TagLibFile::open(fx::cached("t.caf", caf).string())); // TagLib has no CAF
}

TEST(AudioFileProbe, MeasuresWhatTagLibCannotOpen) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::Tone tone;
    tone.format = fx::Format::caf;
    tone.sampleRate = 48000;
    tone.channels = 1;
    tone.seconds = 1.0;
    auto caf = AudioFileProbe::read(fx::cached("probe.caf", tone).string());
    ASSERT_TRUE(caf);
    EXPECT_EQ(caf->frames, 48000);
    EXPECT_EQ(caf->sampleRate, 48000);
    EXPECT_EQ(caf->channels, 1);

    tone.format = fx::Format::adts;
    tone.channels = 2;
    auto adts = AudioFileProbe::read(fx::cached("probe.aac", tone).string());
    ASSERT_TRUE(adts);
    EXPECT_EQ(adts->sampleRate, 48000);
    EXPECT_EQ(adts->channels, 2);
    EXPECT_NEAR(static_cast<double>(adts->frames) / 48000, 1.0, 0.1);

    fx::TempDir dir;
    EXPECT_FALSE(AudioFileProbe::read((dir / "missing.caf").string()));
    EXPECT_FALSE(
        AudioFileProbe::read(fx::writeBroken(dir.path(), "z.caf", fx::Broken::zeroBytes).string()));
    EXPECT_FALSE(
        AudioFileProbe::read(fx::writeBroken(dir.path(), "g.caf", fx::Broken::garbage).string()));
}

TEST(TagLibFile, FormatsWithoutPicturesRefuseOneCleanly) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto path = dir / "tone.wv"; // WavPack: APE tags, no pictures in this program
    auto made = fx::runProcess({"ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                                "sine=duration=0.5", "-c:a", "wavpack", "-f", "wv", path.string()});
    ASSERT_EQ(made.status, 0) << made.errors;
    {
        auto file = TagLibFile::open(path.string());
        ASSERT_TRUE(file);
        EXPECT_FALSE(file->picture());
        EXPECT_FALSE(file->setPicture(Picture{fx::image(fx::Cover{}), "image/jpeg"}));
        file->set("TITLE", {"Sin portada"});
        ASSERT_TRUE(file->save());
    }
    EXPECT_EQ(TagLibFile::open(path.string())->value("TITLE"), "Sin portada");
    EXPECT_TRUE(fx::decodes(path));
}
