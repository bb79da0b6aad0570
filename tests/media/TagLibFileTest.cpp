// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/TagLibFile.h"
#include "media/Codecs.h"
#include "media/Module.h"
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
            // The read-only opening (a block cache) sees what the stdio one sees, and writes
            // nothing.
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

// A cover's type is read from its first bytes, whatever it was called; a cut header is
// no type at all.
TEST(TagLibFile, PictureTypesComeFromTheBytes) {
    const std::pair<std::string, const char*> cases[] = {
        {"\xFF\xD8\xFF\xE0rest", "image/jpeg"},
        {"\x89PNG\r\n\x1A\n....", "image/png"},
        {"GIF89a..", "image/gif"},
        {"BM" + std::string(30, '\0'), "image/bmp"},
        {std::string("RIFF\x10\0\0\0WEBPVP8 ", 16), "image/webp"},
        {std::string("RIFF\x10\0\0\0WAVEfmt ", 16), ""},
        {"BM", ""},
        {"\x89PNG", ""},
        {"", ""}};
    for (const auto& [bytes, mime] : cases)
        EXPECT_EQ(Picture::mimeTypeOf(std::vector<uint8_t>(bytes.begin(), bytes.end())), mime)
            << bytes;
}

TEST(Module, LoadsTheCodecModuleAndReportsWhatIsMissing) {
    ASSERT_NE(codecs(), nullptr) << codecsError();
    EXPECT_EQ(codecsError(), "");
    EXPECT_EQ(codecs(), codecs()); // loaded once

    std::string error;
    EXPECT_EQ(module::load("trovan-nothing.so", "trovan_codecs", error), nullptr);
    EXPECT_NE(error.find("trovan-nothing.so"), std::string::npos) << error;
    EXPECT_EQ(module::load("trovan-ffmpeg.so", "trovan_nothing", error), nullptr);
    EXPECT_NE(error.find("trovan_nothing"), std::string::npos) << error;
    EXPECT_NE(module::load("trovan-ffmpeg.so", "trovan_codecs", error), nullptr);
    EXPECT_EQ(error, "");

    // A file that is no picture, and one that does not exist, give nothing.
    const std::vector<std::uint8_t> junk(100, 7);
    EXPECT_FALSE(ImageDecoder::isImage(junk));
    EXPECT_THROW(AudioDecoder("/nonexistent/trovan.flac"), AudioDecodeError);
}
