// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Owners for the FFmpeg handles the media layer uses, so that every error path frees
// what it opened. Only media/*.cpp include this; it pulls in FFmpeg's C headers.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <cstdint>
#include <memory>

namespace trovan::ffmpeg {

struct FormatCloser {
    void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
struct CodecFreer {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct PacketFreer {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameFreer {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct SwrFreer {
    void operator()(SwrContext* c) const { swr_free(&c); }
};
struct SwsFreer {
    void operator()(SwsContext* s) const { sws_freeContext(s); }
};
struct AvFreer {
    void operator()(std::uint8_t* p) const { av_free(p); }
};

using FormatPtr = std::unique_ptr<AVFormatContext, FormatCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFreer>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;
using SwrPtr = std::unique_ptr<SwrContext, SwrFreer>;
using SwsPtr = std::unique_ptr<SwsContext, SwsFreer>;
using AvBuffer = std::unique_ptr<std::uint8_t, AvFreer>;

} // namespace trovan::ffmpeg
