// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/TagLibFile.h"
#include "media/AudioFileProbe.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

using namespace trovan;
namespace fx = trovan::fixtures;

TEST(TagLibFile, RoundTripsTagsAndPicturesOnEveryFormat) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    // Three pictures; the first is stored without a MIME type.
    const std::vector<fx::Cover> covers = {
        {fx::ImageKind::png, 8, 8, "white", std::string(""), 3, ""},
        {fx::ImageKind::png, 8, 8, "blue", std::nullopt, 4, "contraportada"},
        {fx::ImageKind::jpeg, 12, 12, "green", std::nullopt, 0, "otra"}};
    const Picture png{
        fx::image({.kind = fx::ImageKind::png, .width = 20, .height = 10, .color = "yellow"}),
        "image/png"};
    const std::string lyrics(100'000, 'l'); // a tag well over one block of the read cache
    for (auto format : fx::taggableFormats()) {
        SCOPED_TRACE(fx::name(format));
        fx::Tone tone{.format = format,
                      .tags = {{"TITLE", {"Canción ñ 日本"}},
                               {"ARTIST", {"Uno", "Dos"}},
                               {"ALBUM", {"Álbum"}},
                               {"GENRE", {"Rock"}},
                               {"LYRICS", {lyrics}}},
                      .covers = covers};
        auto path = fx::copyTo(fx::cached("rich." + fx::extension(format), tone), dir.path());
        {
            // The read-only opening reads through a block cache: it sees what the stdio one
            // sees, and writes nothing.
            auto cached = TagLibFile::openForReading(path.string());
            auto plain = TagLibFile::open(path.string());
            ASSERT_TRUE(cached && plain);
            EXPECT_EQ(cached->value("LYRICS"), lyrics);
            EXPECT_EQ(cached->properties(), plain->properties());
            EXPECT_EQ(cached->audioProperties(), plain->audioProperties());
            EXPECT_EQ(cached->picture(), plain->picture());
            cached->set("TITLE", {"Otro"});
            EXPECT_FALSE(cached->save());
        }
        ASSERT_EQ(fx::storedPictures(path).size(), 3u);
        {
            auto file = TagLibFile::open(path.string());
            ASSERT_TRUE(file);
            EXPECT_EQ(file->value("TITLE"), "Canción ñ 日本");
            EXPECT_EQ(file->value("ARTIST"), "Uno");
            EXPECT_EQ(file->properties()["ARTIST"], (std::vector<std::string>{"Uno", "Dos"}));
            EXPECT_EQ(file->picture(), (Picture{fx::image(covers[0]), "image/jpeg"}));

            file->set("ARTIST", {"Ünø", "Ｄｏｓ"});
            file->append("ARTIST", {"Tres"});
            file->set("TITLE", {"Título nuevo ☃"});
            file->remove("GENRE");
            EXPECT_EQ(file->value("GENRE"), std::nullopt); // visible before saving
            ASSERT_TRUE(file->setPicture(png));
            ASSERT_TRUE(file->save());
        }
        auto file = TagLibFile::open(path.string());
        ASSERT_TRUE(file);
        auto props = file->properties();
        EXPECT_EQ(props["ARTIST"], (std::vector<std::string>{"Ünø", "Ｄｏｓ", "Tres"}));
        EXPECT_EQ(props["TITLE"], std::vector<std::string>{"Título nuevo ☃"});
        EXPECT_EQ(file->value("ALBUM"), "Álbum");
        EXPECT_FALSE(props.contains("GENRE"));
        EXPECT_EQ(file->picture(), png);
        auto stored = fx::storedPictures(path);
        ASSERT_EQ(stored.size(), 1u);
        EXPECT_EQ(stored[0].data, png.data);
        EXPECT_EQ(stored[0].mimeType, "image/png");
        EXPECT_EQ(stored[0].description, "");
        EXPECT_TRUE(stored[0].pictureType == 3 || stored[0].pictureType == -1); // front cover
        if (format == fx::Format::mp3) {
            // ID3v2.4, and no ID3v1 or APE tag appears on saving.
            auto tags = fx::mpegTags(path);
            EXPECT_EQ(tags.id3v2Version, 4);
            EXPECT_FALSE(tags.id3v1 || tags.ape);
        }
        EXPECT_TRUE(fx::decodes(path));
        ASSERT_TRUE(file->setPicture(std::nullopt) && file->save());
        file.reset();
        EXPECT_TRUE(fx::storedPictures(path).empty());
        EXPECT_FALSE(TagLibFile::open(path.string())->picture());
        EXPECT_TRUE(fx::decodes(path));
    }

    // WavPack carries APE tags but no pictures here: a picture is refused, tags still saved.
    auto wv = dir / "tone.wv";
    auto made = fx::runProcess({"ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                                "sine=duration=0.5", "-c:a", "wavpack", wv.string()});
    ASSERT_EQ(made.status, 0) << made.errors;
    auto file = TagLibFile::open(wv.string());
    ASSERT_TRUE(file);
    EXPECT_FALSE(file->picture());
    EXPECT_FALSE(file->setPicture(Picture{fx::image(fx::Cover{}), "image/jpeg"}));
    file->set("TITLE", {"Sin portada"});
    ASSERT_TRUE(file->save());
    file.reset();
    EXPECT_EQ(TagLibFile::open(wv.string())->value("TITLE"), "Sin portada");
    EXPECT_TRUE(fx::decodes(wv));
}

// Files TagLib cannot read give nothing from either opening nor from the FFmpeg reader; damaged
// ones read the same through the block cache as through stdio.
TEST(TagLibFile, DamagedFilesReadTheSameThroughEitherOpening) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    // Missing, a folder, empty, garbage; CAF is a format only FFmpeg reads.
    for (const auto& p : {dir / "missing.flac", dir.path(),
                          fx::writeBroken(dir.path(), "z.flac", fx::Broken::zeroBytes),
                          fx::writeBroken(dir.path(), "g.m4a", fx::Broken::garbage),
                          fx::writeBroken(dir.path(), "g.ogg", fx::Broken::garbage),
                          fx::writeBroken(dir.path(), "g.caf", fx::Broken::garbage)}) {
        EXPECT_FALSE(TagLibFile::open(p.string()) || TagLibFile::openForReading(p.string()) ||
                     AudioFileProbe::read(p.string()))
            << p;
    }
    for (auto format : {fx::Format::flac, fx::Format::mp3, fx::Format::aac}) {
        auto path = fx::writeBroken(dir.path(), "cut." + fx::extension(format),
                                    fx::Broken::truncated, format);
        SCOPED_TRACE(path);
        auto plain = TagLibFile::open(path.string());
        auto cached = TagLibFile::openForReading(path.string());
        ASSERT_EQ(bool(plain), bool(cached));
        if (!plain) continue;
        EXPECT_EQ(cached->properties(), plain->properties());
        EXPECT_EQ(cached->audioProperties(), plain->audioProperties());
        EXPECT_EQ(cached->picture(), plain->picture());
    }
}

// A cover's type is read from its first bytes, whatever it was called.
TEST(TagLibFile, PictureTypesComeFromTheBytes) {
    auto bytes = [](std::string s) { return std::vector<uint8_t>(s.begin(), s.end()); };
    const struct {
        std::vector<uint8_t> data;
        std::string mime;
    } cases[] = {
        {bytes("\xFF\xD8\xFF\xE0rest"), "image/jpeg"},
        {bytes("\x89PNG\r\n\x1A\n...."), "image/png"},
        {bytes("GIF87a.."), "image/gif"},
        {bytes("GIF89a.."), "image/gif"},
        {bytes("BM" + std::string(30, '\0')), "image/bmp"},
        {bytes(std::string("RIFF\x10\0\0\0WEBPVP8 ", 16)), "image/webp"},
        {bytes(std::string("RIFF\x10\0\0\0WAVEfmt ", 16)), ""},
        {bytes("BM"), ""},
        {bytes("\x89PNG"), ""},
        {{}, ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Picture::mimeTypeOf(c.data), c.mime);
}
