// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/TagLibFile.h"
#include "media/Codecs.h"
#include "media/Module.h"

#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace trovan;

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

// TagLib fills some of its key tables on first use, without a lock, and the first files a
// process opens may be read and edited on several threads at once. Each child here is a
// first use; twenty of them show a race that goes wrong one time in three.
TEST(TagLibFile, FirstUseOnSeveralThreadsAtOnce) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    fixtures::Tone tone;
    tone.format = fixtures::Format::aac; // no tags: this process leaves TagLib untouched
    const std::string file = fixtures::cached("threads.m4a", tone).string();
    for (int run = 0; run < 20; ++run) {
        const pid_t child = ::fork();
        if (child == 0) {
            std::vector<std::thread> threads;
            for (int i = 0; i < 4; ++i)
                threads.emplace_back([&file] {
                    auto f = TagLibFile::open(file);
                    if (!f) ::_exit(2);
                    f->properties();
                    f->set("TITLE", {"x"});
                });
            for (auto& t : threads)
                t.join();
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "run " << run << ", wait status " << status;
    }
}
