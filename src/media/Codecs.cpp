// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/Codecs.h"

#include "media/Module.h"

namespace trovan {

namespace {

struct Loaded {
    Codecs* codecs = nullptr;
    std::string error;

    Loaded() {
        using Entry = Codecs* (*)();
        if (auto entry = reinterpret_cast<Entry>(
                module::load("trovan-ffmpeg.so", "trovan_codecs", error)))
            codecs = entry();
    }
};

const Loaded& loaded() {
    static const Loaded once; // the first caller loads it; concurrent callers wait
    return once;
}

} // namespace

Codecs* codecs() {
    return loaded().codecs;
}

const std::string& codecsError() {
    return loaded().error;
}

AudioDecoder::AudioDecoder(const std::string& path) : path_(path) {
    Codecs* c = codecs();
    if (!c) throw AudioDecodeError("no se pudo cargar FFmpeg: " + codecsError());
    DecoderOpening opened = c->openDecoder(path);
    if (!opened.stream) throw AudioDecodeError(opened.error);
    impl_ = std::move(opened.stream);
    description_ = std::move(opened.description);
    sampleRate_ = opened.sampleRate;
    outputChannels_ = opened.outputChannels;
    frames_ = opened.frames;
    lengthIsExact_ = opened.lengthIsExact;
}

AudioDecoder::~AudioDecoder() = default;

bool AudioDecoder::seek(int64_t frame) {
    position_ = std::max<int64_t>(frame, 0);
    return impl_->seek(position_);
}

bool AudioDecoder::failed() const {
    return impl_->failed();
}

std::size_t AudioDecoder::read(float* out, std::size_t maxFrames) {
    const std::size_t n = impl_->read(out, maxFrames);
    position_ += static_cast<int64_t>(n);
    return n;
}

std::optional<AudioFileProbe> AudioFileProbe::read(const std::string& path) {
    Codecs* c = codecs();
    return c ? c->probe(path) : std::nullopt;
}

bool ImageDecoder::isImage(std::span<const std::uint8_t> bytes) {
    Codecs* c = codecs();
    return c && c->isImage(bytes);
}

std::optional<RgbImage> ImageDecoder::decodeToFill(std::span<const std::uint8_t> bytes, int width,
                                                   int height) {
    Codecs* c = codecs();
    return c ? c->decodeToFill(bytes, width, height) : std::nullopt;
}

std::optional<std::vector<std::uint8_t>> ImageDecoder::embeddedPicture(const std::string& path) {
    Codecs* c = codecs();
    return c ? c->embeddedPicture(path) : std::nullopt;
}

} // namespace trovan
