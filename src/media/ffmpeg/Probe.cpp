// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/ffmpeg/FfmpegCodecs.h"

#include "media/ffmpeg/FFmpegHandles.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <memory>

namespace trovan {

namespace {

using ffmpeg::FormatPtr;

} // namespace

std::optional<AudioFileProbe> ffmpeg::probe(const std::string& path) {
    silence();
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) return std::nullopt;
    FormatPtr ctx(raw);
    if (avformat_find_stream_info(ctx.get(), nullptr) < 0) return std::nullopt;
    int index = av_find_best_stream(ctx.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (index < 0) return std::nullopt;
    const AVStream* stream = ctx->streams[index];
    const AVCodecParameters* par = stream->codecpar;

    if (par->sample_rate <= 0 || par->ch_layout.nb_channels <= 0) return std::nullopt;

    AudioFileProbe out;
    out.sampleRate = par->sample_rate;
    out.channels = par->ch_layout.nb_channels;
    if (par->sample_rate > 0) {
        const AVRational perFrame{1, par->sample_rate};
        if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
            out.frames = av_rescale_q(stream->duration, stream->time_base, perFrame);
        else if (ctx->duration != AV_NOPTS_VALUE && ctx->duration > 0)
            out.frames = av_rescale_q(ctx->duration, AVRational{1, AV_TIME_BASE}, perFrame);
    }
    return out;
}

} // namespace trovan
