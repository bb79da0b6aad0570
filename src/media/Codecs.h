// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Everything that needs FFmpeg (audio decoding, probing files TagLib cannot open, cover
// pictures) lives in a module of its own, loaded the first time it is needed. FFmpeg
// brings in some hundred and fifty shared libraries; mapping and relocating them takes
// tens of milliseconds, which start-up does not wait for. The classes of this layer
// (AudioDecoder, AudioFileProbe, ImageDecoder) call the module through this interface.

#include "media/AudioDecoder.h"
#include "media/AudioFileProbe.h"
#include "media/ImageDecoder.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace trovan {

// The decoding half of an AudioDecoder; AudioDecoder itself keeps the position.
class DecoderStream {
public:
    virtual ~DecoderStream() = default;
    virtual bool seek(int64_t frame) = 0; // frame >= 0
    virtual std::size_t read(float* out, std::size_t maxFrames) = 0;
    virtual bool failed() const { return false; }
};

struct DecoderOpening {
    std::unique_ptr<DecoderStream> stream; // null when the file cannot be played
    std::string error;                     // why, when it cannot
    AudioStreamDescription description;
    int sampleRate = 0;
    int outputChannels = 0;
    int64_t frames = 0;
    bool lengthIsExact = true;
};

class Codecs {
public:
    virtual ~Codecs() = default;
    virtual DecoderOpening openDecoder(const std::string& path) = 0;
    virtual std::optional<AudioFileProbe> probe(const std::string& path) = 0;
    virtual bool isImage(std::span<const std::uint8_t> bytes) = 0;
    virtual std::optional<RgbImage> decodeToFill(std::span<const std::uint8_t> bytes, int width,
                                                 int height) = 0;
    virtual std::optional<std::vector<std::uint8_t>> embeddedPicture(const std::string& path) = 0;
};

// The codec module, loaded by whichever thread asks first (any others wait for it).
// Null when it cannot be loaded; codecsError() then tells why.
Codecs* codecs();
const std::string& codecsError();

} // namespace trovan
