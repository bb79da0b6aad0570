// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/CoverArtRenderer.h"
#include "media/CoverFile.h"

#include "Fixtures.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

using namespace trovan;
using trovan::testing::picture;
using Bytes = std::vector<std::uint8_t>;

namespace {

// Red, green and blue thirds, left to right, of a picture 90 pixels wide.
const std::string kThirds = " -vf drawbox=x=0:y=0:w=30:h=ih:t=fill:color=red,"
                            "drawbox=x=60:y=0:w=30:h=ih:t=fill:color=blue";

class CoverArtRendererTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("command -v ffmpeg >/dev/null") != 0) GTEST_SKIP() << "ffmpeg missing";
    }
    fixtures::TempDir dir{"trovan-cover"};
};

bool near(RGB p, RGB q, int tolerance) {
    return std::abs(p.r - q.r) <= tolerance && std::abs(p.g - q.g) <= tolerance &&
           std::abs(p.b - q.b) <= tolerance;
}
int hue(RGB p) {
    return p.r > p.g && p.r > p.b ? 0 : p.b > p.g && p.b > p.r ? 2 : 1;
}

} // namespace

TEST_F(CoverArtRendererTest, SolidCoversFillTheWholeGridAtAnyShape) {
    for (const std::string shape : {"64x64", "160x48", "48x160"}) {
        const Bytes jpeg = picture(shape + ".jpg", "color=c=0xC86432:s=" + shape, "");
        const Bytes png = picture(shape + ".png", "color=c=0x3264C8:s=" + shape, "");
        for (auto [cols, rows] : {std::pair{10, 5}, {12, 5}, {3, 7}, {1, 1}}) {
            const auto a = CoverArtRenderer::pixels(jpeg, cols, rows);
            const auto b = CoverArtRenderer::pixels(png, cols, rows);
            ASSERT_TRUE(a && b) << shape;
            ASSERT_EQ(a->size(), static_cast<std::size_t>(cols * 2 * rows));
            ASSERT_EQ(b->size(), a->size());
            // Reading the full-range JPEG as limited range would shift it by about 20.
            for (std::size_t i = 0; i < a->size(); ++i) {
                EXPECT_TRUE(near((*a)[i], {0xC8, 0x64, 0x32}, 6)) << shape << " jpeg " << i;
                EXPECT_TRUE(near((*b)[i], {0x32, 0x64, 0xC8}, 3)) << shape << " png " << i;
            }
        }
    }
}

TEST_F(CoverArtRendererTest, WideAndTallCoversLoseTheSameAmountOnBothSides) {
    // 90 × 30 into 10 × 6 pixels keeps the middle 50 source pixels: 10 of each outer third,
    // so two red and two blue pixels on every line; likewise down the columns when tall,
    // whether the picture is stored tall or stored wide with an Exif "turn a quarter
    // clockwise" (APP1 with one entry: Orientation 0x0112, SHORT, count 1, value 6).
    for (const std::string ext : {".png", ".jpg"}) {
        const Bytes wide = picture("w" + ext, "color=c=0x00FF00:s=90x30", kThirds);
        Bytes turned(wide.begin(), wide.begin() + 2);
        turned.insert(turned.end(),
                      {0xFF, 0xE1, 0, 34, 'E', 'x', 'i', 'f', 0, 0, 'I', 'I', 42, 0, 8, 0, 0, 0, 1,
                       0,    0x12, 1, 3,  0,   1,   0,   0,   0, 6, 0,   0,   0,  0, 0, 0, 0});
        turned.insert(turned.end(), wide.begin() + 2, wide.end());
        std::vector<std::optional<std::vector<RGB>>> tall = {CoverArtRenderer::pixels(
            picture("t" + ext, "color=c=0x00FF00:s=90x30", kThirds + ",transpose=1"), 6, 5)};
        if (ext == ".jpg") tall.push_back(CoverArtRenderer::pixels(turned, 6, 5));
        const auto across = CoverArtRenderer::pixels(wide, 10, 3);
        ASSERT_TRUE(across) << ext;
        for (const auto& down : tall) {
            ASSERT_TRUE(down) << ext;
            for (int line = 0; line < 6; ++line) {
                int counts[2][3] = {};
                for (int i = 0; i < 10; ++i) {
                    ++counts[0][hue((*across)[static_cast<std::size_t>(line * 10 + i)])];
                    ++counts[1][hue((*down)[static_cast<std::size_t>(i * 6 + line)])];
                }
                for (const auto& c : counts)
                    EXPECT_EQ(std::vector<int>(c, c + 3), (std::vector<int>{2, 6, 2}))
                        << ext << line;
            }
            EXPECT_EQ(hue(down->back()), 2);
        }
        EXPECT_EQ(hue(across->front()), 0);
    }
    // A square picture in a square grid keeps all three thirds whole.
    const auto square =
        CoverArtRenderer::pixels(picture("s.png", "color=c=0x00FF00:s=90x90", kThirds), 6, 3);
    ASSERT_TRUE(square);
    for (int x = 0; x < 6; ++x)
        EXPECT_EQ(hue((*square)[static_cast<std::size_t>(x)]), x / 2) << x;
}

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
