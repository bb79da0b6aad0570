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

class CoverArtRendererTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("command -v ffmpeg >/dev/null") != 0) GTEST_SKIP() << "ffmpeg missing";
    }
    // Runs ffmpeg with `args` writing `name` in the test's folder and returns its bytes.
    Bytes generate(const std::string& name, const std::string& args) {
        const std::string out = (dir / name).string();
        const std::string cmd = "ffmpeg -nostdin -v error -y " + args + " '" + out + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
        std::ifstream in(out, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    // A w × h picture of one colour, or red, green and blue thirds from left to right
    // (from top to bottom when `tall`: the wide picture turned a quarter clockwise).
    Bytes picture(const std::string& name, int w, int h, const std::string& colour = "0x00FF00",
                  bool thirds = false, bool tall = false) {
        const std::string t = std::to_string(w / 3), box = ":y=0:w=" + t + ":h=ih:t=fill:color=";
        return generate(name, "-f lavfi -i color=c=" + colour + ":s=" + std::to_string(w) + "x" +
                                  std::to_string(h) + " -frames:v 1 -q:v 2" +
                                  (thirds ? " -vf drawbox=x=0" + box +
                                                "red,drawbox=x=" + std::to_string(2 * (w / 3)) +
                                                box + "blue" + (tall ? ",transpose=1" : "")
                                          : ""));
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
    for (auto [w, h] : {std::pair{64, 64}, {160, 48}, {48, 160}}) {
        const std::string shape = std::to_string(w) + "x" + std::to_string(h);
        const Bytes jpeg = picture(shape + ".jpg", w, h, "0xC86432");
        const Bytes png = picture(shape + ".png", w, h, "0x3264C8");
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
    // so two red and two blue pixels on every line; likewise down the columns when tall.
    for (const char* ext : {".png", ".jpg"}) {
        const auto wide = CoverArtRenderer::pixels(
            picture(std::string("w") + ext, 90, 30, "0x00FF00", true), 10, 3);
        const auto tall = CoverArtRenderer::pixels(
            picture(std::string("t") + ext, 90, 30, "0x00FF00", true, true), 6, 5);
        ASSERT_TRUE(wide && tall) << ext;
        for (int line = 0; line < 6; ++line) {
            int counts[2][3] = {};
            for (int i = 0; i < 10; ++i) {
                ++counts[0][hue((*wide)[static_cast<std::size_t>(line * 10 + i)])];
                ++counts[1][hue((*tall)[static_cast<std::size_t>(i * 6 + line)])];
            }
            for (const auto& c : counts)
                EXPECT_EQ(std::vector<int>(c, c + 3), (std::vector<int>{2, 6, 2})) << ext << line;
        }
        EXPECT_EQ(hue(wide->front()), 0);
        EXPECT_EQ(hue(tall->back()), 2);
    }
    // A square picture in a square grid keeps all three thirds whole.
    const auto square = CoverArtRenderer::pixels(picture("s.png", 60, 60, "0x00FF00", true), 6, 3);
    ASSERT_TRUE(square);
    for (int x = 0; x < 6; ++x)
        EXPECT_EQ(hue((*square)[static_cast<std::size_t>(x)]), x / 2) << x;
}

TEST_F(CoverArtRendererTest, ExifOrientationIsApplied) {
    // 40 × 20, left half red, stored "rotate 90° clockwise to view": upright it is 20 × 40
    // with red on top.
    const Bytes jpeg = generate("sideways.jpg", "-f lavfi -i color=c=0x0000FF:s=40x20 -frames:v 1 "
                                                "-vf drawbox=x=0:y=0:w=20:h=ih:color=red:t=fill");
    ASSERT_GT(jpeg.size(), 4u);
    // APP1 "Exif" segment with one entry: Orientation (0x0112), SHORT, count 1, value 6.
    Bytes rotated(jpeg.begin(), jpeg.begin() + 2);
    rotated.insert(rotated.end(),
                   {0xFF, 0xE1, 0,    34,   'E', 'x', 'i', 'f', 0, 0, 'I', 'I', 42, 0, 8, 0, 0, 0,
                    1,    0,    0x12, 0x01, 3,   0,   1,   0,   0, 0, 6,   0,   0,  0, 0, 0, 0, 0});
    rotated.insert(rotated.end(), jpeg.begin() + 2, jpeg.end());
    const auto plain = CoverArtRenderer::pixels(jpeg, 4, 1);
    const auto upright = CoverArtRenderer::pixels(rotated, 2, 2);
    ASSERT_TRUE(plain && upright);
    EXPECT_EQ((std::vector{hue((*plain)[0]), hue((*plain)[3])}), (std::vector{0, 2}));
    EXPECT_EQ((std::vector{hue((*upright)[1]), hue((*upright)[6])}), (std::vector{0, 2}));
}

TEST_F(CoverArtRendererTest, BytesThatAreNotAPictureGiveNothing) {
    const std::string text = "esto no es una imagen";
    EXPECT_FALSE(CoverArtRenderer::pixels(Bytes(text.begin(), text.end()), 10, 5));
    EXPECT_FALSE(CoverArtRenderer::pixels({}, 10, 5));
    EXPECT_FALSE(CoverArtRenderer::pixels(Bytes{0xFF, 0xD8, 0xFF, 0xE0, 0, 0, 1, 2, 3}, 10, 5));
    const Bytes png = picture("ok.png", 8, 8);
    EXPECT_FALSE(CoverArtRenderer::pixels(png, 0, 5));
    EXPECT_FALSE(CoverArtRenderer::pixels(png, 10, 0));
}

TEST_F(CoverArtRendererTest, CorruptPicturesNeverCrash) {
    std::mt19937 rng(7);
    int decoded = 0;
    for (const std::string name : {"m.jpg", "m.png", "m.gif", "m.bmp", "m.tiff", "m.webp"}) {
        // Uncommon pixel formats where the container has them: 1-bit and 16-bit grey.
        const std::string options = name == "m.bmp"    ? " -pix_fmt monob"
                                    : name == "m.tiff" ? " -pix_fmt gray16le"
                                                       : "";
        const Bytes bytes = generate(name, "-f lavfi -i testsrc2=s=48x32 -frames:v 1" + options);
        if (bytes.empty()) continue; // this ffmpeg build lacks the encoder
        decoded += CoverArtRenderer::pixels(bytes, 7, 3).has_value();
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
