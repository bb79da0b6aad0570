// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/ffmpeg/FfmpegCodecs.h"

#include "media/ffmpeg/FFmpegHandles.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

namespace trovan {

namespace {

using namespace ffmpeg;

// A pathological picture must not exhaust memory; real covers are far below this.
constexpr std::int64_t maxPixels = 64LL * 1024 * 1024;

bool startsWith(std::span<const std::uint8_t> b, std::size_t at, const char* magic, std::size_t n) {
    return b.size() >= at + n && std::memcmp(b.data() + at, magic, n) == 0;
}

AVCodecID codecFor(std::span<const std::uint8_t> b) {
    if (startsWith(b, 0, "\xFF\xD8\xFF", 3)) return AV_CODEC_ID_MJPEG;
    if (startsWith(b, 0, "\x89PNG\r\n\x1A\n", 8)) return AV_CODEC_ID_PNG;
    if (startsWith(b, 0, "GIF87a", 6) || startsWith(b, 0, "GIF89a", 6)) return AV_CODEC_ID_GIF;
    if (startsWith(b, 0, "RIFF", 4) && startsWith(b, 8, "WEBP", 4)) return AV_CODEC_ID_WEBP;
    if (startsWith(b, 0, "II*\0", 4) || startsWith(b, 0, "MM\0*", 4)) return AV_CODEC_ID_TIFF;
    if (startsWith(b, 0, "BM", 2) && b.size() > 26) return AV_CODEC_ID_BMP;
    return AV_CODEC_ID_NONE;
}

struct Decoded {
    FramePtr frame;
    int orientation = 1; // EXIF values 1..8
};

int orientationOf(const AVFrame& frame) {
    const AVDictionaryEntry* e = av_dict_get(frame.metadata, "Orientation", nullptr, 0);
    if (!e || !e->value) return 1;
    int v = std::atoi(e->value);
    return v >= 1 && v <= 8 ? v : 1;
}

bool transposes(int orientation) {
    return orientation >= 5;
}

std::optional<Decoded> decode(std::span<const std::uint8_t> bytes) {
    silence();
    AVCodecID id = codecFor(bytes);
    if (id == AV_CODEC_ID_NONE || bytes.size() > static_cast<std::size_t>(INT32_MAX) / 2)
        return std::nullopt;
    const AVCodec* codec = avcodec_find_decoder(id);
    if (!codec) return std::nullopt;
    CodecPtr ctx(avcodec_alloc_context3(codec));
    if (!ctx) return std::nullopt;
    ctx->thread_count = 1;
    ctx->max_pixels = maxPixels;
    if (avcodec_open2(ctx.get(), codec, nullptr) < 0) return std::nullopt;

    PacketPtr packet(av_packet_alloc());
    if (!packet || av_new_packet(packet.get(), static_cast<int>(bytes.size())) < 0)
        return std::nullopt;
    std::memcpy(packet->data, bytes.data(), bytes.size());
    packet->flags |= AV_PKT_FLAG_KEY;

    FramePtr frame(av_frame_alloc());
    if (!frame) return std::nullopt;
    if (avcodec_send_packet(ctx.get(), packet.get()) < 0) return std::nullopt;
    int rc = avcodec_receive_frame(ctx.get(), frame.get());
    if (rc == AVERROR(EAGAIN)) {
        avcodec_send_packet(ctx.get(), nullptr);
        rc = avcodec_receive_frame(ctx.get(), frame.get());
    }
    if (rc < 0 || frame->width < 1 || frame->height < 1 || !frame->data[0]) return std::nullopt;
    if (static_cast<AVPixelFormat>(frame->format) == AV_PIX_FMT_NONE) return std::nullopt;
    Decoded d;
    d.orientation = orientationOf(*frame);
    d.frame = std::move(frame);
    return d;
}

// The deprecated "J" formats mean full-range YUV; swscale wants the plain format plus
// the range flag.
AVPixelFormat plainFormat(AVPixelFormat f, bool& fullRange) {
    switch (f) {
    case AV_PIX_FMT_YUVJ420P:
        fullRange = true;
        return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P:
        fullRange = true;
        return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P:
        fullRange = true;
        return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P:
        fullRange = true;
        return AV_PIX_FMT_YUV440P;
    case AV_PIX_FMT_YUVJ411P:
        fullRange = true;
        return AV_PIX_FMT_YUV411P;
    default:
        return f;
    }
}

// Maps output pixel (x, y) of the upright picture (outW × outH) to the pixel of the
// stored picture (inW × inH) it comes from.
std::pair<int, int> sourceOf(int orientation, int x, int y, int inW, int inH) {
    switch (orientation) {
    case 2:
        return {inW - 1 - x, y};
    case 3:
        return {inW - 1 - x, inH - 1 - y};
    case 4:
        return {x, inH - 1 - y};
    case 5:
        return {y, x};
    case 6:
        return {y, inH - 1 - x};
    case 7:
        return {inW - 1 - y, inH - 1 - x};
    case 8:
        return {inW - 1 - y, x};
    default:
        return {x, y};
    }
}

// A picture with transparency, already cropped: converted to RGBA at its own size,
// premultiplied (so the colour of invisible pixels cannot bleed into visible ones when
// scaled), then scaled and turned upright, its alpha kept beside the colours.
std::optional<RgbImage> scaleWithAlpha(const AVFrame& frame, AVPixelFormat src, int tw, int th,
                                       int orientation, int width, int height) {
    const int w = frame.width, h = frame.height;
    SwsPtr toRgba(
        sws_getContext(w, h, src, w, h, AV_PIX_FMT_RGBA, SWS_POINT, nullptr, nullptr, nullptr));
    if (!toRgba) return std::nullopt;
    const int stride = (w * 4 + 63) & ~63;
    AvBuffer full(static_cast<std::uint8_t*>(av_malloc(static_cast<std::size_t>(stride) * h + 64)));
    if (!full) return std::nullopt;
    std::uint8_t* dst[4] = {full.get(), nullptr, nullptr, nullptr};
    int dstStride[4] = {stride, 0, 0, 0};
    if (sws_scale(toRgba.get(), frame.data, frame.linesize, 0, h, dst, dstStride) != h)
        return std::nullopt;
    for (int y = 0; y < h; ++y) {
        std::uint8_t* p = full.get() + static_cast<std::size_t>(y) * stride;
        for (int x = 0; x < w; ++x, p += 4)
            for (int c = 0; c < 3; ++c)
                p[c] = static_cast<std::uint8_t>((p[c] * p[3] + 127) / 255);
    }

    SwsPtr scale(sws_getContext(w, h, AV_PIX_FMT_RGBA, tw, th, AV_PIX_FMT_RGBA,
                                SWS_LANCZOS | SWS_ACCURATE_RND, nullptr, nullptr, nullptr));
    if (!scale) return std::nullopt;
    const int outStride = (tw * 4 + 63) & ~63;
    AvBuffer scaled(
        static_cast<std::uint8_t*>(av_malloc(static_cast<std::size_t>(outStride) * th + 64)));
    if (!scaled) return std::nullopt;
    const std::uint8_t* in[4] = {full.get(), nullptr, nullptr, nullptr};
    std::uint8_t* out[4] = {scaled.get(), nullptr, nullptr, nullptr};
    int outStrides[4] = {outStride, 0, 0, 0};
    if (sws_scale(scale.get(), in, dstStride, 0, h, out, outStrides) != th) return std::nullopt;

    RgbImage image;
    image.width = width;
    image.height = height;
    image.rgb.resize(static_cast<std::size_t>(width) * height * 3);
    image.alpha.resize(static_cast<std::size_t>(width) * height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            auto [sx, sy] = sourceOf(orientation, x, y, tw, th);
            const std::uint8_t* p =
                scaled.get() + static_cast<std::size_t>(sy) * outStride + sx * 4;
            const std::size_t i = static_cast<std::size_t>(y) * width + x;
            // Ringing of the scaling filter may leave a colour above its alpha.
            image.alpha[i] = p[3];
            for (int c = 0; c < 3; ++c)
                image.rgb[3 * i + c] = std::min(p[c], p[3]);
        }
    }
    return image;
}

} // namespace

bool ffmpeg::isImage(std::span<const std::uint8_t> bytes) {
    return decode(bytes).has_value();
}

std::optional<RgbImage> ffmpeg::decodeToFill(std::span<const std::uint8_t> bytes, int width,
                                             int height) {
    if (width < 1 || height < 1 || static_cast<std::int64_t>(width) * height > maxPixels)
        return std::nullopt;
    auto d = decode(bytes);
    if (!d) return std::nullopt;
    AVFrame* frame = d->frame.get();

    // Work in the stored picture's axes; the orientation is applied to the small result.
    const bool swap = transposes(d->orientation);
    const int tw = swap ? height : width;
    const int th = swap ? width : height;
    const double w = frame->width, h = frame->height;
    const double scale = std::max(tw / w, th / h);
    const int keepW = std::clamp(static_cast<int>(std::lround(tw / scale)), 1, frame->width);
    const int keepH = std::clamp(static_cast<int>(std::lround(th / scale)), 1, frame->height);
    frame->crop_left = static_cast<std::size_t>((frame->width - keepW) / 2);
    frame->crop_right = static_cast<std::size_t>(frame->width - keepW) - frame->crop_left;
    frame->crop_top = static_cast<std::size_t>((frame->height - keepH) / 2);
    frame->crop_bottom = static_cast<std::size_t>(frame->height - keepH) - frame->crop_top;
    if (av_frame_apply_cropping(frame, AV_FRAME_CROP_UNALIGNED) < 0) return std::nullopt;

    bool fullRange = frame->color_range == AVCOL_RANGE_JPEG;
    AVPixelFormat src = plainFormat(static_cast<AVPixelFormat>(frame->format), fullRange);
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(src);
    if (desc && (desc->flags & AV_PIX_FMT_FLAG_ALPHA))
        return scaleWithAlpha(*frame, src, tw, th, d->orientation, width, height);
    SwsPtr sws(sws_getContext(frame->width, frame->height, src, tw, th, AV_PIX_FMT_RGB24,
                              SWS_LANCZOS | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr,
                              nullptr));
    if (!sws) return std::nullopt;
    if (desc && !(desc->flags & AV_PIX_FMT_FLAG_RGB) && desc->nb_components >= 3) {
        int* invTable = nullptr;
        int* table = nullptr;
        int srcRange = 0, dstRange = 0, brightness = 0, contrast = 0, saturation = 0;
        if (sws_getColorspaceDetails(sws.get(), &invTable, &srcRange, &table, &dstRange,
                                     &brightness, &contrast, &saturation) >= 0) {
            int cs = frame->colorspace == AVCOL_SPC_BT709 ? SWS_CS_ITU709 : SWS_CS_ITU601;
            sws_setColorspaceDetails(sws.get(), sws_getCoefficients(cs), fullRange ? 1 : 0, table,
                                     1, brightness, contrast, saturation);
        }
    }

    const int stride = (tw * 3 + 63) & ~63;
    AvBuffer scaled(
        static_cast<std::uint8_t*>(av_malloc(static_cast<std::size_t>(stride) * th + 64)));
    if (!scaled) return std::nullopt;
    std::uint8_t* dst[4] = {scaled.get(), nullptr, nullptr, nullptr};
    int dstStride[4] = {stride, 0, 0, 0};
    if (sws_scale(sws.get(), frame->data, frame->linesize, 0, frame->height, dst, dstStride) != th)
        return std::nullopt;

    RgbImage out;
    out.width = width;
    out.height = height;
    out.rgb.resize(static_cast<std::size_t>(width) * height * 3);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            auto [sx, sy] = sourceOf(d->orientation, x, y, tw, th);
            const std::uint8_t* p = scaled.get() + static_cast<std::size_t>(sy) * stride + sx * 3;
            std::uint8_t* q = out.rgb.data() + (static_cast<std::size_t>(y) * width + x) * 3;
            q[0] = p[0];
            q[1] = p[1];
            q[2] = p[2];
        }
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> ffmpeg::embeddedPicture(const std::string& path) {
    silence();
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) return std::nullopt;
    FormatPtr fmt(raw);
    for (unsigned i = 0; i < fmt->nb_streams; ++i) {
        const AVStream* st = fmt->streams[i];
        if (!(st->disposition & AV_DISPOSITION_ATTACHED_PIC)) continue;
        const AVPacket& pic = st->attached_pic;
        if (pic.size <= 0 || !pic.data) continue;
        return std::vector<std::uint8_t>(pic.data, pic.data + pic.size);
    }
    return std::nullopt;
}

} // namespace trovan
