// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/Module.h"
#include "media/Codecs.h"

#include <gtest/gtest.h>

using namespace trovan;

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
