// SPDX-License-Identifier: GPL-3.0-or-later
// The codec module's one exported symbol.

#include "media/ffmpeg/FfmpegCodecs.h"

extern "C" {
#include <libavutil/log.h>
}

#include <mutex>

namespace trovan {

namespace {

class FfmpegCodecs final : public Codecs {
public:
    DecoderOpening openDecoder(const std::string& path) override {
        return ffmpeg::openDecoder(path);
    }
    std::optional<AudioFileProbe> probe(const std::string& path) override {
        return ffmpeg::probe(path);
    }
    bool isImage(std::span<const std::uint8_t> bytes) override { return ffmpeg::isImage(bytes); }
    std::optional<RgbImage> decodeToFill(std::span<const std::uint8_t> bytes, int width,
                                         int height) override {
        return ffmpeg::decodeToFill(bytes, width, height);
    }
    std::optional<std::vector<std::uint8_t>> embeddedPicture(const std::string& path) override {
        return ffmpeg::embeddedPicture(path);
    }
};

} // namespace

void ffmpeg::silence() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

} // namespace trovan

extern "C" __attribute__((visibility("default"))) trovan::Codecs* trovan_codecs() {
    static trovan::FfmpegCodecs codecs;
    return &codecs;
}
