#include "media/ImageDecoder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace trovan;
namespace fs = std::filesystem;

namespace {

class ImageDecoderTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("command -v ffmpeg >/dev/null 2>&1") != 0) GTEST_SKIP() << "ffmpeg missing";
        dir_ = fs::temp_directory_path() /
               ("trovan-img-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir_);
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // Runs ffmpeg with the given arguments, writing `name`; returns the file's bytes.
    std::vector<std::uint8_t> generate(const std::string& name, const std::string& args) {
        fs::path out = dir_ / name;
        std::string cmd = "ffmpeg -nostdin -v error -y " + args + " '" + out.string() + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
        return read(out);
    }
    static std::vector<std::uint8_t> read(const fs::path& p) {
        std::ifstream in(p, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    fs::path dir_;
};

struct Px {
    int r, g, b;
};
Px at(const RgbImage& img, int x, int y) {
    const auto* p = &img.rgb[(static_cast<std::size_t>(y) * img.width + x) * 3];
    return {p[0], p[1], p[2]};
}
bool near(Px p, int r, int g, int b, int tol) {
    return std::abs(p.r - r) <= tol && std::abs(p.g - g) <= tol && std::abs(p.b - b) <= tol;
}

} // namespace

TEST_F(ImageDecoderTest, OtherFormatsDecode) {
    for (const char* ext : {"gif", "bmp", "webp", "tiff"}) {
        auto bytes = generate(std::string("solid.") + ext, "-f lavfi -i color=c=0xFF0000:s=32x32 -frames:v 1");
        if (bytes.empty()) continue; // encoder missing from this ffmpeg build
        auto img = ImageDecoder::decodeToFill(bytes, 4, 4);
        ASSERT_TRUE(img) << ext;
        EXPECT_TRUE(near(at(*img, 2, 2), 255, 0, 0, 40)) << ext;
        EXPECT_TRUE(ImageDecoder::isImage(bytes)) << ext;
    }
}

TEST_F(ImageDecoderTest, ExifOrientationTurnsThePictureUpright) {
    // 40 × 20, left half red, right half blue; stored "rotate 90° clockwise to view".
    auto jpeg = generate("sideways.jpg", "-f lavfi -i color=c=0x0000FF:s=40x20 -frames:v 1 -q:v 2 "
                                         "-vf drawbox=x=0:y=0:w=20:h=ih:color=0xFF0000:t=fill");
    ASSERT_GT(jpeg.size(), 4u);
    // APP1 "Exif" segment with one IFD entry: Orientation (0x0112), SHORT, 1, value 6.
    const std::uint8_t tiff[] = {'I', 'I', 42, 0, 8, 0, 0, 0, 1, 0, 0x12, 0x01, 3, 0,
                                 1,   0,   0,  0, 6, 0, 0, 0, 0, 0, 0,    0};
    std::vector<std::uint8_t> app1 = {0xFF, 0xE1, 0, 0, 'E', 'x', 'i', 'f', 0, 0};
    app1.insert(app1.end(), std::begin(tiff), std::end(tiff));
    std::size_t len = app1.size() - 2;
    app1[2] = static_cast<std::uint8_t>(len >> 8);
    app1[3] = static_cast<std::uint8_t>(len & 0xFF);
    std::vector<std::uint8_t> rotated(jpeg.begin(), jpeg.begin() + 2);
    rotated.insert(rotated.end(), app1.begin(), app1.end());
    rotated.insert(rotated.end(), jpeg.begin() + 2, jpeg.end());

    auto plain = ImageDecoder::size(jpeg);
    ASSERT_TRUE(plain);
    EXPECT_EQ(*plain, (std::pair{40, 20}));
    auto size = ImageDecoder::size(rotated);
    ASSERT_TRUE(size);
    EXPECT_EQ(*size, (std::pair{20, 40}));
    auto img = ImageDecoder::decodeToFill(rotated, 2, 4);
    ASSERT_TRUE(img);
    EXPECT_GT(at(*img, 0, 0).r, 200); // the left half is now on top
    EXPECT_GT(at(*img, 1, 0).r, 200);
    EXPECT_GT(at(*img, 0, 3).b, 200);
    EXPECT_GT(at(*img, 1, 3).b, 200);
}

TEST_F(ImageDecoderTest, BadBytesGiveNothing) {
    std::vector<std::uint8_t> text = {'h', 'o', 'l', 'a'};
    EXPECT_FALSE(ImageDecoder::decodeToFill(text, 10, 10));
    EXPECT_FALSE(ImageDecoder::isImage(text));
    EXPECT_FALSE(ImageDecoder::decodeToFill({}, 10, 10));
    std::vector<std::uint8_t> fakeJpeg = {0xFF, 0xD8, 0xFF, 0xE0, 0, 0, 1, 2, 3};
    EXPECT_FALSE(ImageDecoder::decodeToFill(fakeJpeg, 10, 10));
    auto png = generate("ok.png", "-f lavfi -i color=c=red:s=16x16 -frames:v 1");
    EXPECT_FALSE(ImageDecoder::decodeToFill(png, 0, 10));
    EXPECT_FALSE(ImageDecoder::decodeToFill(png, 10, -1));
    // Truncated pictures must not crash; whether something decodes is up to the codec.
    for (std::size_t n : {png.size() / 2, std::size_t{20}, std::size_t{9}}) {
        std::vector<std::uint8_t> cut(png.begin(), png.begin() + static_cast<long>(n));
        (void)ImageDecoder::decodeToFill(cut, 5, 5);
    }
}

TEST_F(ImageDecoderTest, EmbeddedPictureOfAnAudioFile) {
    auto cover = generate("cover.png", "-f lavfi -i color=c=0x00FF00:s=32x32 -frames:v 1");
    generate("with-cover.flac", "-f lavfi -i sine=d=0.2 -i '" + (dir_ / "cover.png").string() +
                                    "' -map 0 -map 1 -c:a flac -c:v copy -disposition:v attached_pic");
    generate("plain.flac", "-f lavfi -i sine=d=0.2 -c:a flac");
    auto pic = ImageDecoder::embeddedPicture((dir_ / "with-cover.flac").string());
    ASSERT_TRUE(pic);
    EXPECT_EQ(*pic, cover);
    EXPECT_FALSE(ImageDecoder::embeddedPicture((dir_ / "plain.flac").string()));
    EXPECT_FALSE(ImageDecoder::embeddedPicture((dir_ / "missing.flac").string()));
}
