// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/ffmpeg/FfmpegCodecs.h"

#include "media/ffmpeg/FFmpegHandles.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/log.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <cstring>
#include <limits>
#include <mutex>
#include <vector>

namespace trovan {

namespace {

struct LayoutHolder {
    AVChannelLayout layout{};
    ~LayoutHolder() { av_channel_layout_uninit(&layout); }
};

using namespace ffmpeg;

constexpr int minSampleRate = 1000;
constexpr int maxSampleRate = 1'536'000;
constexpr int maxChannels = 64;
// Corrupt files can yield endless undecodable packets; give up after this many in a row.
constexpr int maxConsecutiveErrors = 500;

AudioCodecKind kindOf(AVCodecID id) {
    switch (id) {
    case AV_CODEC_ID_ALAC:
        return AudioCodecKind::alac;
    case AV_CODEC_ID_FLAC:
        return AudioCodecKind::flac;
    case AV_CODEC_ID_AAC:
    case AV_CODEC_ID_AAC_LATM:
        return AudioCodecKind::aac;
    case AV_CODEC_ID_MP3:
        return AudioCodecKind::mp3;
    default:
        break;
    }
    if (id >= AV_CODEC_ID_FIRST_AUDIO && id < AV_CODEC_ID_ADPCM_IMA_QT) return AudioCodecKind::pcm;
    return AudioCodecKind::other;
}

struct Impl {
    FormatPtr format;
    CodecPtr codec;
    SwrPtr swr;
    PacketPtr packet{av_packet_alloc()};
    FramePtr frame{av_frame_alloc()};
    int stream = -1;
    AVRational timeBase{1, 1};
    int64_t startTime = 0; // in timeBase
    int rate = 0;
    int outChannels = 0;
    // The converter's input format; rebuilt when a frame arrives in another one.
    int swrFormat = -1;
    int swrChannels = 0;
    int swrRate = 0;

    std::vector<float> pending; // converted frames not yet handed out
    std::size_t pendingOffset = 0;
    std::size_t pendingFrames = 0;
    int64_t nextPosition = 0; // estimate for frames without a timestamp
    int64_t dropBefore = std::numeric_limits<int64_t>::min(); // by timestamp, after a seek
    int64_t dropCount = 0;                                    // by count, after starting over
    bool flushing = false;
    bool finished = false;
    bool broken = false; // gave up on undecodable data
    bool needsPreroll = false;
    // Ogg Vorbis: only the first frame after a seek takes its position from its timestamp,
    // the rest are counted from it. The demuxer derives timestamps from the granule of the
    // page that holds them, and on a file's first and last pages they are off by a packet.
    bool countAfterSeek = false;
    bool anchored = false;

    void open(const std::string& path) {
        AVFormatContext* raw = nullptr;
        if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0)
            throw AudioDecodeError("cannot open " + path);
        format.reset(raw);
        if (avformat_find_stream_info(format.get(), nullptr) < 0)
            throw AudioDecodeError("no stream information");
        const AVCodec* decoder = nullptr;
        stream = av_find_best_stream(format.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &decoder, 0);
        if (stream < 0 || !decoder) throw AudioDecodeError("no audio stream");
        for (unsigned i = 0; i < format->nb_streams; ++i)
            if (static_cast<int>(i) != stream) format->streams[i]->discard = AVDISCARD_ALL;
        AVStream* st = format->streams[stream];
        timeBase = st->time_base;
        if (timeBase.num <= 0 || timeBase.den <= 0) throw AudioDecodeError("bad time base");
        startTime = st->start_time == AV_NOPTS_VALUE ? 0 : st->start_time;

        codec.reset(avcodec_alloc_context3(decoder));
        if (!codec || avcodec_parameters_to_context(codec.get(), st->codecpar) < 0)
            throw AudioDecodeError("cannot set up decoder");
        codec->thread_count = 1;
        if (avcodec_open2(codec.get(), decoder, nullptr) < 0)
            throw AudioDecodeError("cannot open decoder");
        rate = codec->sample_rate;
        int channels = codec->ch_layout.nb_channels;
        if (rate < minSampleRate || rate > maxSampleRate)
            throw AudioDecodeError("unsupported sample rate");
        if (channels <= 0 || channels > maxChannels)
            throw AudioDecodeError("unsupported channel count");
        outChannels = channels == 1 ? 1 : 2;
        AVCodecID id = st->codecpar->codec_id;
        needsPreroll = id != AV_CODEC_ID_FLAC && id != AV_CODEC_ID_ALAC &&
                       kindOf(id) != AudioCodecKind::pcm && id != AV_CODEC_ID_VORBIS &&
                       id != AV_CODEC_ID_OPUS;
        countAfterSeek = id == AV_CODEC_ID_VORBIS;
        if (!packet || !frame) throw AudioDecodeError("out of memory");
    }

    // (Re)creates the converter for the given input. At the stream's own rate it never
    // buffers and positions stay exact; frames at another rate (a stream whose rate
    // changes midway) are resampled to the stream's rate.
    bool configure(const AVChannelLayout& inLayout, int sampleFormat, int inRate) {
        LayoutHolder in, out;
        if (inLayout.order == AV_CHANNEL_ORDER_UNSPEC || av_channel_layout_check(&inLayout) == 0)
            av_channel_layout_default(&in.layout, inLayout.nb_channels);
        else if (av_channel_layout_copy(&in.layout, &inLayout) < 0)
            return false;
        av_channel_layout_default(&out.layout, outChannels);
        SwrContext* raw = nullptr;
        if (swr_alloc_set_opts2(&raw, &out.layout, AV_SAMPLE_FMT_FLT, rate, &in.layout,
                                static_cast<AVSampleFormat>(sampleFormat), inRate, 0, nullptr) < 0)
            return false;
        SwrPtr fresh(raw);
        if (swr_init(fresh.get()) < 0) return false;
        swr = std::move(fresh);
        swrFormat = sampleFormat;
        swrChannels = inLayout.nb_channels;
        swrRate = inRate;
        return true;
    }

    // Writes what a resampling converter still holds to pending[at...]; frame count.
    std::size_t drainResampler(std::size_t at) {
        if (!swr || swrRate == rate) return 0;
        const int room = swr_get_out_samples(swr.get(), 0);
        if (room <= 0) return 0;
        const auto ch = static_cast<std::size_t>(outChannels);
        pending.resize((at + static_cast<std::size_t>(room)) * ch);
        uint8_t* outPlanes[1] = {reinterpret_cast<uint8_t*>(pending.data() + at * ch)};
        const int got = swr_convert(swr.get(), outPlanes, room, nullptr, 0);
        return got > 0 ? static_cast<std::size_t>(got) : 0;
    }

    // Decodes until one frame's worth of converted audio is pending. False at the end.
    bool decodeMore() {
        int errors = 0;
        while (!finished) {
            int r = avcodec_receive_frame(codec.get(), frame.get());
            if (r == 0) {
                bool ok = convert();
                av_frame_unref(frame.get());
                if (ok && pendingFrames > pendingOffset) return true;
                continue;
            }
            if (r == AVERROR_EOF) {
                finished = true;
                if (std::size_t tail = drainResampler(0)) {
                    pendingFrames = tail;
                    pendingOffset = 0;
                    nextPosition += static_cast<int64_t>(tail);
                    return true;
                }
                break;
            }
            if (r != AVERROR(EAGAIN)) {
                if (++errors > maxConsecutiveErrors) finished = broken = true;
                continue;
            }
            if (flushing) { // a decoder that wants input after the flush: nothing more to get
                finished = true;
                break;
            }
            int rr = av_read_frame(format.get(), packet.get());
            if (rr < 0) {
                flushing = true;
                avcodec_send_packet(codec.get(), nullptr);
                continue;
            }
            if (packet->stream_index != stream) {
                av_packet_unref(packet.get());
                continue;
            }
            int s = avcodec_send_packet(codec.get(), packet.get());
            av_packet_unref(packet.get());
            if (s < 0 && s != AVERROR(EAGAIN)) {
                if (++errors > maxConsecutiveErrors) finished = broken = true;
            } else {
                errors = 0;
            }
        }
        return false;
    }

    bool convert() {
        AVFrame* f = frame.get();
        if (f->nb_samples <= 0 || f->sample_rate < minSampleRate || f->sample_rate > maxSampleRate)
            return false;
        if (f->ch_layout.nb_channels <= 0 || f->ch_layout.nb_channels > maxChannels) return false;
        std::size_t carried = 0; // the old resampler's tail, played before this frame
        if (!swr || f->format != swrFormat || f->ch_layout.nb_channels != swrChannels ||
            f->sample_rate != swrRate) {
            carried = drainResampler(0);
            if (!configure(f->ch_layout, f->format, f->sample_rate)) return false;
        }
        int64_t pos = nextPosition;
        int64_t ts = f->best_effort_timestamp;
        if (ts != AV_NOPTS_VALUE && !(countAfterSeek && anchored))
            pos = av_rescale_q(ts - startTime, timeBase, AVRational{1, rate});
        anchored = true;
        pos -= static_cast<int64_t>(carried);
        const int n = f->nb_samples;
        const int room = swr_get_out_samples(swr.get(), n);
        if (room < 0) return false;
        const auto ch = static_cast<std::size_t>(outChannels);
        pending.resize((carried + static_cast<std::size_t>(room)) * ch);
        uint8_t* outPlanes[1] = {reinterpret_cast<uint8_t*>(pending.data() + carried * ch)};
        const int converted = swr_convert(swr.get(), outPlanes, room,
                                          const_cast<const uint8_t**>(f->extended_data), n);
        const int got = static_cast<int>(carried) + std::max(converted, 0);
        nextPosition = pos + got;
        if (got <= 0) return false;
        pendingFrames = static_cast<std::size_t>(got);
        pendingOffset = 0;
        if (dropCount > 0) {
            int64_t drop = std::min<int64_t>(dropCount, got);
            dropCount -= drop;
            pendingOffset = static_cast<std::size_t>(drop);
            return pendingOffset < pendingFrames;
        }
        if (pos < dropBefore) {
            int64_t drop = dropBefore - pos;
            if (drop >= got) {
                pendingFrames = 0;
                return false;
            }
            pendingOffset = static_cast<std::size_t>(drop);
        }
        return true;
    }

    void resetDecoding() {
        avcodec_flush_buffers(codec.get());
        if (swrRate != rate) swr.reset(); // a resampler's tail belongs to the old position
        dropCount = 0;
        anchored = false;
        pendingFrames = pendingOffset = 0;
        flushing = false;
        finished = false;
    }
};

// One open file: the decoder state, replaced whole when a seek has to start over.
class Decoder final : public DecoderStream {
public:
    explicit Decoder(const std::string& path) : impl_(std::make_unique<Impl>()), path_(path) {
        impl_->open(path);
    }

    void describe(DecoderOpening& out) const {
        AVStream* st = impl_->format->streams[impl_->stream];
        const AVCodecParameters* par = st->codecpar;
        out.sampleRate = impl_->rate;
        out.outputChannels = impl_->outChannels;
        auto& d = out.description;
        d.codec = kindOf(par->codec_id);
        d.codecName = avcodec_get_name(par->codec_id);
        d.sampleRate = par->sample_rate > 0 ? par->sample_rate : impl_->rate;
        d.channels = par->ch_layout.nb_channels > 0 ? par->ch_layout.nb_channels
                                                    : impl_->codec->ch_layout.nb_channels;
        d.bitsPerRawSample = std::max(par->bits_per_raw_sample, 0);
        d.bitsPerCodedSample = std::max(par->bits_per_coded_sample, 0);

        AVRational perFrame{1, impl_->rate};
        int64_t frames = 0;
        if (st->duration != AV_NOPTS_VALUE && st->duration > 0)
            frames = av_rescale_q(st->duration, st->time_base, perFrame);
        else if (impl_->format->duration != AV_NOPTS_VALUE && impl_->format->duration > 0)
            frames = av_rescale_q(impl_->format->duration, AVRational{1, AV_TIME_BASE}, perFrame);
        // The decoder drops the encoder's priming samples (Opus pre-skip, an MP3's
        // LAME delay) and trailing padding; the container's length still counts them.
        bool padded = false;
        if (par->initial_padding > 0 && impl_->startTime <= 0) {
            frames -= av_rescale(par->initial_padding, impl_->rate,
                                 par->sample_rate > 0 ? par->sample_rate : impl_->rate);
        } else if (impl_->startTime > 0) {
            frames -= av_rescale_q(impl_->startTime, st->time_base, perFrame);
            padded = par->codec_id == AV_CODEC_ID_MP3; // its end padding is only known once decoded
        }
        out.frames = std::max<int64_t>(frames, 0);
        out.lengthIsExact =
            !padded && impl_->format->duration_estimation_method != AVFMT_DURATION_FROM_BITRATE;
    }

    bool seek(int64_t frame) override {
        Impl& d = *impl_;
        // Vorbis lands a second early so that the frame it counts from is on a page whose
        // timestamps hold (and a short file simply starts over).
        const int64_t preroll = d.needsPreroll ? d.rate / 10 : d.countAfterSeek ? d.rate : 0;
        const int64_t from = frame - preroll;
        int r = -1;
        if (from > 0) {
            int64_t ts = d.startTime + av_rescale_q(from, AVRational{1, d.rate}, d.timeBase);
            r = av_seek_frame(d.format.get(), d.stream, ts, AVSEEK_FLAG_BACKWARD);
            if (r < 0) r = avformat_seek_file(d.format.get(), d.stream, INT64_MIN, ts, ts, 0);
        }
        if (r >= 0) {
            d.resetDecoding();
            d.nextPosition = std::max<int64_t>(from, 0);
            d.dropBefore = frame;
            return true;
        }
        // Near the start (decoders trim priming samples only on a fresh start, and
        // demuxers treat a seek to the first timestamp specially), or on input that
        // cannot seek: start over and count frames.
        try {
            auto fresh = std::make_unique<Impl>();
            fresh->open(path_);
            impl_ = std::move(fresh);
        } catch (const AudioDecodeError&) {
            impl_->finished = true;
            return false;
        }
        impl_->dropCount = frame;
        return true;
    }

    bool failed() const override { return impl_->broken; }

    std::size_t read(float* out, std::size_t maxFrames) override {
        Impl& d = *impl_;
        std::size_t written = 0;
        const auto ch = static_cast<std::size_t>(d.outChannels);
        while (written < maxFrames) {
            if (d.pendingOffset < d.pendingFrames) {
                std::size_t n = std::min(maxFrames - written, d.pendingFrames - d.pendingOffset);
                std::memcpy(out + written * ch, d.pending.data() + d.pendingOffset * ch,
                            n * ch * sizeof(float));
                d.pendingOffset += n;
                written += n;
                continue;
            }
            if (!d.decodeMore()) break;
        }
        return written;
    }

private:
    std::unique_ptr<Impl> impl_;
    std::string path_;
};

} // namespace

DecoderOpening ffmpeg::openDecoder(const std::string& path) {
    silence();
    DecoderOpening out;
    try {
        auto decoder = std::make_unique<Decoder>(path);
        decoder->describe(out);
        out.stream = std::move(decoder);
    } catch (const AudioDecodeError& e) {
        out.error = e.what();
    }
    return out;
}

} // namespace trovan
