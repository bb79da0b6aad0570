// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/CoverArtRenderer.h"
#include "media/CoverFile.h"

#include "Fixtures.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

using namespace trovan;
using trovan::testing::picture;
using Bytes = std::vector<std::uint8_t>;

namespace {

class CoverArtRendererTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("command -v ffmpeg >/dev/null") != 0) GTEST_SKIP() << "ffmpeg missing";
    }
    fixtures::TempDir dir{"trovan-cover"};
};

} // namespace

TEST_F(CoverArtRendererTest, EveryPictureFormatDecodesAndOtherBytesGiveNothing) {
    const std::string text = "esto no es una imagen";
    EXPECT_FALSE(CoverArtRenderer::pixels(Bytes(text.begin(), text.end()), 10, 5));
    EXPECT_FALSE(CoverArtRenderer::pixels({}, 10, 5));
    EXPECT_FALSE(CoverArtRenderer::pixels(Bytes{0xFF, 0xD8, 0xFF, 0xE0, 0, 0, 1, 2, 3}, 10, 5));
    int decoded = 0;
    for (const std::string name : {"m.jpg", "m.png", "m.gif", "m.bmp", "m.tiff", "m.webp"}) {
        // Uncommon pixel formats where the container has them: 1-bit and 16-bit grey.
        const Bytes bytes = picture(name, "testsrc2=s=48x32",
                                    name == "m.bmp"    ? " -pix_fmt monob"
                                    : name == "m.tiff" ? " -pix_fmt gray16le"
                                                       : "");
        if (bytes.empty()) continue; // this ffmpeg build lacks the encoder
        decoded += CoverArtRenderer::pixels(bytes, 7, 3).has_value();
        EXPECT_FALSE(CoverArtRenderer::pixels(bytes, 0, 5));
        Bytes cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 3));
        if (const auto px = CoverArtRenderer::pixels(cut, 7, 3)) {
            EXPECT_EQ(px->size(), 42u);
        }
    }
    EXPECT_GE(decoded, 5);
}

namespace {

using trovan::testing::rgbaPng;

Bytes solidPng(int w, int h, std::array<int, 4> rgba) {
    return rgbaPng(w, h, std::to_string(rgba[0]), std::to_string(rgba[1]), std::to_string(rgba[2]),
                   std::to_string(rgba[3]));
}

} // namespace

// Without an embedded picture, a cover image beside the track is used: cover, folder,
// front, album, artwork, in that order whatever the folder's order, in any case, with any
// of the image extensions; names that are not pictures are passed over.
TEST_F(CoverArtRendererTest, FolderImagesFollowTheNamesInOrder) {
    const auto album = dir / "album";
    std::filesystem::create_directories(album);
    const std::string track = (album / "01.mp3").string(); // need not exist
    std::vector<Bytes> shades;                             // six distinct pictures
    for (int v = 0; v < 6; ++v)
        shades.push_back(solidPng(1, 1, {v * 40, v * 40, v * 40, 255}));
    auto write = [&](const std::string& name, int shade) {
        const Bytes& png = shades[static_cast<std::size_t>(shade)];
        std::ofstream(album / name, std::ios::binary)
            .write(reinterpret_cast<const char*>(png.data()), std::ssize(png));
        return png;
    };
    write("albumart.jpg", 0);
    std::ofstream(album / "cover.txt") << "x";
    std::filesystem::create_directory(album / "cover.jpeg"); // a folder, not a picture
    const std::vector<std::pair<std::string, Bytes>> ranked = {
        {"COVER.JPG", write("COVER.JPG", 1)},
        {"Folder.PNG", write("Folder.PNG", 2)},
        {"front.jpeg", write("front.jpeg", 3)},
        {"Album.bmp", write("Album.bmp", 4)},
        {"artwork.gif", write("artwork.gif", 5)}};
    for (const auto& [name, bytes] : ranked) {
        EXPECT_EQ(CoverFile::read(track), bytes) << name;
        std::filesystem::remove(album / name);
    }
    EXPECT_FALSE(CoverFile::read(track));

    // A cover that does not decode gives way to the next name.
    std::ofstream(album / "cover.jpg") << "no es una imagen";
    EXPECT_EQ(CoverFile::read(track), write("folder.webp", 2));
    EXPECT_FALSE(CoverFile::read((dir / "gone" / "01.mp3").string()));
}
