#include "ui/CoverArtRenderer.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>

using namespace trovan;
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
    // Runs ffmpeg on the lavfi `source` with `args`, writing `name` in the test's folder,
    // and returns its bytes.
    Bytes picture(const std::string& name, const std::string& source, const std::string& args) {
        const std::string out = (dir / name).string();
        const std::string cmd = "ffmpeg -nostdin -v error -y -f lavfi -i " + source +
                                " -frames:v 1 -q:v 2" + args + " '" + out + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
        std::ifstream in(out, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
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

TEST_F(CoverArtRendererTest, BytesThatAreNotAPictureGiveNothingAndBrokenOnesNeverCrash) {
    const std::string text = "esto no es una imagen";
    EXPECT_FALSE(CoverArtRenderer::pixels(Bytes(text.begin(), text.end()), 10, 5));
    EXPECT_FALSE(CoverArtRenderer::pixels({}, 10, 5));
    EXPECT_FALSE(CoverArtRenderer::pixels(Bytes{0xFF, 0xD8, 0xFF, 0xE0, 0, 0, 1, 2, 3}, 10, 5));
    std::mt19937 rng(7);
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
        EXPECT_FALSE(CoverArtRenderer::pixels(bytes, 10, 0));
        for (int round = 0; round < 60; ++round) {
            Bytes broken = bytes;
            for (int i = 1 + static_cast<int>(rng() % 8); i > 0; --i)
                broken[rng() % broken.size()] = static_cast<std::uint8_t>(rng());
            if (round % 5 == 0) broken.resize(rng() % broken.size());
            if (const auto px = CoverArtRenderer::pixels(broken, 7, 3)) {
                EXPECT_EQ(px->size(), 42u);
            }
        }
    }
    EXPECT_GE(decoded, 5); // the untouched pictures decode, whatever their format
}
