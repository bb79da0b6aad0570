#include "ui/CoverArtRenderer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

using namespace trovan;
namespace fs = std::filesystem;

namespace {

class CoverArtRendererTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("command -v ffmpeg >/dev/null 2>&1") != 0) GTEST_SKIP() << "ffmpeg missing";
        dir_ = fs::temp_directory_path() /
               ("trovan-cover-" + std::to_string(::getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir_);
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    std::vector<std::uint8_t> generate(const std::string& name, const std::string& args) {
        fs::path out = dir_ / name;
        std::string cmd = "ffmpeg -nostdin -v error -y " + args + " '" + out.string() + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
        std::ifstream in(out, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    fs::path dir_;
};

bool near(RGB p, int r, int g, int b, int tol) {
    return std::abs(p.r - r) <= tol && std::abs(p.g - g) <= tol && std::abs(p.b - b) <= tol;
}

// Red, green and blue stripes (thirds) across the long side of a w × h picture.
std::string thirds(int w, int h) {
    const bool wide = w >= h;
    const int t = (wide ? w : h) / 3;
    auto box = [&](int from, const char* colour) {
        return wide ? "drawbox=x=" + std::to_string(from) + ":y=0:w=" + std::to_string(t) +
                          ":h=ih:color=" + colour + ":t=fill"
                    : "drawbox=x=0:y=" + std::to_string(from) + ":w=iw:h=" + std::to_string(t) +
                          ":color=" + colour + ":t=fill";
    };
    return "-f lavfi -i color=c=0x00FF00:s=" + std::to_string(w) + "x" + std::to_string(h) +
           " -frames:v 1 -vf " + box(0, "0xFF0000") + "," + box(2 * t, "0x0000FF");
}

enum class Hue { red, green, blue };
Hue hue(RGB p) {
    if (p.r > p.g && p.r > p.b) return Hue::red;
    if (p.b > p.g && p.b > p.r) return Hue::blue;
    return Hue::green;
}

} // namespace

TEST_F(CoverArtRendererTest, SolidCoversFillTheWholeGridAtAnyShape) {
    for (const char* shape : {"64x64", "160x48", "48x160"}) {
        const auto jpeg = generate(std::string("c-") + shape + ".jpg",
                                   std::string("-f lavfi -i color=c=0xC86432:s=") + shape +
                                       " -frames:v 1 -q:v 2");
        const auto png =
            generate(std::string("c-") + shape + ".png",
                     std::string("-f lavfi -i color=c=0x3264C8:s=") + shape + " -frames:v 1");
        for (auto [cols, rows] :
             {std::pair{10, 5}, std::pair{12, 5}, std::pair{3, 7}, std::pair{1, 1}}) {
            const auto a = CoverArtRenderer::pixels(jpeg, cols, rows);
            const auto b = CoverArtRenderer::pixels(png, cols, rows);
            ASSERT_TRUE(a && b) << shape;
            ASSERT_EQ(a->size(), static_cast<std::size_t>(cols * 2 * rows));
            ASSERT_EQ(b->size(), static_cast<std::size_t>(cols * 2 * rows));
            for (std::size_t i = 0; i < a->size(); ++i) {
                // The JPEG is full-range YUV; treating it as limited range shifts these
                // by about twenty levels.
                EXPECT_TRUE(near((*a)[i], 0xC8, 0x64, 0x32, 6)) << shape << " jpeg pixel " << i;
                EXPECT_TRUE(near((*b)[i], 0x32, 0x64, 0xC8, 3)) << shape << " png pixel " << i;
            }
        }
    }
}

TEST_F(CoverArtRendererTest, WideAndTallCoversAreCroppedEquallyOnBothSides) {
    // 90 × 30 into 10 × 6 pixels: a 50-pixel window in the middle survives, which
    // holds 10 pixels of each outer stripe, so 2 columns of red and 2 of blue.
    for (const char* ext : {"png", "jpg"}) {
        const auto wide =
            CoverArtRenderer::pixels(generate(std::string("w.") + ext, thirds(90, 30)), 10, 3);
        ASSERT_TRUE(wide) << ext;
        for (int y = 0; y < 6; ++y) {
            int counts[3] = {};
            for (int x = 0; x < 10; ++x)
                ++counts[static_cast<int>(hue((*wide)[static_cast<std::size_t>(y * 10 + x)]))];
            EXPECT_EQ(counts[0], 2) << ext << " row " << y;
            EXPECT_EQ(counts[2], 2) << ext << " row " << y;
            EXPECT_EQ(counts[1], 6) << ext << " row " << y;
        }
        EXPECT_EQ(hue((*wide)[0]), Hue::red);
        EXPECT_EQ(hue((*wide)[9]), Hue::blue);

        // 30 × 90 into 6 × 10 pixels: the same along the height.
        const auto tall =
            CoverArtRenderer::pixels(generate(std::string("t.") + ext, thirds(30, 90)), 6, 5);
        ASSERT_TRUE(tall) << ext;
        for (int x = 0; x < 6; ++x) {
            int counts[3] = {};
            for (int y = 0; y < 10; ++y)
                ++counts[static_cast<int>(hue((*tall)[static_cast<std::size_t>(y * 6 + x)]))];
            EXPECT_EQ(counts[0], 2) << ext << " column " << x;
            EXPECT_EQ(counts[2], 2) << ext << " column " << x;
        }
    }
    // A square cover into a square grid keeps all three stripes whole.
    const auto square = CoverArtRenderer::pixels(generate("s.png", thirds(60, 60)), 6, 3);
    ASSERT_TRUE(square);
    EXPECT_EQ(hue((*square)[0]), Hue::red);
    EXPECT_EQ(hue((*square)[2]), Hue::green);
    EXPECT_EQ(hue((*square)[3]), Hue::green);
    EXPECT_EQ(hue((*square)[5]), Hue::blue);
}

TEST_F(CoverArtRendererTest, OtherFormatsAndExifOrientation) {
    for (const char* ext : {"gif", "bmp", "webp", "tiff"}) {
        const auto bytes =
            generate(std::string("red.") + ext, "-f lavfi -i color=c=0xFF0000:s=32x32 -frames:v 1");
        if (bytes.empty()) continue; // this ffmpeg build lacks the encoder
        const auto px = CoverArtRenderer::pixels(bytes, 4, 2);
        ASSERT_TRUE(px) << ext;
        EXPECT_TRUE(near((*px)[10], 255, 0, 0, 40)) << ext;
    }

    // 40 × 20, left half red, right half blue, stored "rotate 90° clockwise to view":
    // upright it is 20 × 40 with red on top.
    const auto jpeg =
        generate("sideways.jpg", "-f lavfi -i color=c=0x0000FF:s=40x20 -frames:v 1 -q:v 2 "
                                 "-vf drawbox=x=0:y=0:w=20:h=ih:color=0xFF0000:t=fill");
    ASSERT_GT(jpeg.size(), 4u);
    // APP1 "Exif" segment with one IFD entry: Orientation (0x0112), SHORT, count 1, value 6.
    std::vector<std::uint8_t> app1 = {0xFF, 0xE1, 0, 0, 'E', 'x', 'i', 'f', 0,    0,    'I', 'I',
                                      42,   0,    8, 0, 0,   0,   1,   0,   0x12, 0x01, 3,   0,
                                      1,    0,    0, 0, 6,   0,   0,   0,   0,    0,    0,   0};
    app1[3] = static_cast<std::uint8_t>(app1.size() - 2);
    std::vector<std::uint8_t> rotated(jpeg.begin(), jpeg.begin() + 2);
    rotated.insert(rotated.end(), app1.begin(), app1.end());
    rotated.insert(rotated.end(), jpeg.begin() + 2, jpeg.end());

    const auto plain = CoverArtRenderer::pixels(jpeg, 4, 1); // 4 × 2 pixels
    ASSERT_TRUE(plain);
    EXPECT_EQ(hue((*plain)[0]), Hue::red);
    EXPECT_EQ(hue((*plain)[3]), Hue::blue);
    const auto upright = CoverArtRenderer::pixels(rotated, 2, 2); // 2 × 4 pixels
    ASSERT_TRUE(upright);
    EXPECT_EQ(hue((*upright)[0]), Hue::red);
    EXPECT_EQ(hue((*upright)[1]), Hue::red);
    EXPECT_EQ(hue((*upright)[6]), Hue::blue);
    EXPECT_EQ(hue((*upright)[7]), Hue::blue);
}

TEST_F(CoverArtRendererTest, BytesThatAreNotAPictureGiveNothing) {
    const std::string text = "esto no es una imagen";
    EXPECT_FALSE(CoverArtRenderer::pixels(
        {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, 10, 5));
    EXPECT_FALSE(CoverArtRenderer::pixels({}, 10, 5));
    const auto png = generate("ok.png", "-f lavfi -i color=c=red:s=8x8 -frames:v 1");
    EXPECT_FALSE(CoverArtRenderer::pixels(png, 0, 5));
    EXPECT_FALSE(CoverArtRenderer::pixels(png, 10, 0));
    EXPECT_TRUE(CoverArtRenderer::pixels(png, 10, 5));
    const std::vector<std::uint8_t> fakeJpeg = {0xFF, 0xD8, 0xFF, 0xE0, 0, 0, 1, 2, 3};
    EXPECT_FALSE(CoverArtRenderer::pixels(fakeJpeg, 10, 5));
    // Cut-off pictures must not crash; whether anything decodes is up to the codec.
    for (std::size_t n : {png.size() / 2, std::size_t{20}, std::size_t{9}})
        (void)CoverArtRenderer::pixels({png.data(), n}, 5, 5);
}

TEST_F(CoverArtRendererTest, ImageDataPrefersTheEmbeddedPictureThenAFolderCover) {
    fs::create_directories(dir_ / "a");
    fs::create_directories(dir_ / "b");
    const auto embedded = generate("a/emb.png", "-f lavfi -i color=c=0x00FF00:s=16x16 -frames:v 1");
    generate("a/song.flac", "-f lavfi -i sine=d=0.2 -i '" + (dir_ / "a/emb.png").string() +
                                "' -map 0 -map 1 -c:a flac -c:v copy -disposition:v attached_pic");
    const auto folder = generate("a/Cover.JPG", "-f lavfi -i color=c=0xFF0000:s=16x16 -frames:v 1");
    EXPECT_EQ(CoverArtRenderer::imageData((dir_ / "a/song.flac").string()), embedded);

    generate("b/song.flac", "-f lavfi -i sine=d=0.2 -c:a flac");
    EXPECT_FALSE(CoverArtRenderer::imageData((dir_ / "b/song.flac").string()));
    fs::copy_file(dir_ / "a/Cover.JPG", dir_ / "b/folder.jpg");
    EXPECT_EQ(CoverArtRenderer::imageData((dir_ / "b/song.flac").string()), folder);
    EXPECT_FALSE(CoverArtRenderer::imageData((dir_ / "nowhere/x.flac").string()));
}

TEST_F(CoverArtRendererTest, CorruptPicturesNeverCrash) {
    std::vector<std::vector<std::uint8_t>> seeds = {
        generate("m.jpg", "-f lavfi -i testsrc2=s=48x32 -frames:v 1"),
        generate("m.png", "-f lavfi -i testsrc2=s=48x32 -frames:v 1"),
        generate("m.gif", "-f lavfi -i testsrc2=s=48x32 -frames:v 1"),
        generate("m.bmp", "-f lavfi -i color=c=white:s=48x32 -frames:v 1 -pix_fmt monob"),
        generate("m.tiff", "-f lavfi -i testsrc2=s=48x32 -frames:v 1 -pix_fmt gray16le"),
        generate("m.webp", "-f lavfi -i testsrc2=s=48x32 -frames:v 1"),
    };
    std::mt19937 rng(7);
    int decoded = 0;
    for (const auto& seed : seeds) {
        if (seed.empty()) continue;
        decoded += CoverArtRenderer::pixels(seed, 7, 3).has_value();
        for (int round = 0; round < 60; ++round) {
            auto bytes = seed;
            const int flips = 1 + static_cast<int>(rng() % 8);
            for (int i = 0; i < flips; ++i) bytes[rng() % bytes.size()] = static_cast<std::uint8_t>(rng());
            if (round % 5 == 0) bytes.resize(rng() % bytes.size());
            auto px = CoverArtRenderer::pixels(bytes, 7, 3);
            if (px) {
                EXPECT_EQ(px->size(), 42u);
            }
        }
    }
    EXPECT_GE(decoded, 5); // the untouched pictures themselves decode
}
