// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace trovan {

enum class AudioCodecKind { alac, flac, pcm, aac, mp3, other };

// The stored format of the decoded stream, as the container and codec report it.
struct AudioStreamDescription {
    AudioCodecKind codec = AudioCodecKind::other;
    std::string codecName; // FFmpeg's short codec name, e.g. "flac", "pcm_s16le"
    double sampleRate = 0;
    int channels = 0;           // channels stored in the file
    int bitsPerRawSample = 0;   // 0 when unknown
    int bitsPerCodedSample = 0; // 0 when unknown
};

class AudioDecodeError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class DecoderStream;

// Decodes one audio file to interleaved 32-bit float frames at the file's own
// sample rate. Mono stays mono, stereo stays stereo, anything wider is mixed
// down to stereo. Not thread-safe: one thread uses it at a time.
class AudioDecoder {
public:
    // Throws AudioDecodeError when the file cannot be opened, has no audio
    // stream, or reports a format we refuse to play.
    explicit AudioDecoder(const std::string& path);
    ~AudioDecoder();
    AudioDecoder(const AudioDecoder&) = delete;
    AudioDecoder& operator=(const AudioDecoder&) = delete;

    const std::string& path() const { return path_; }
    const AudioStreamDescription& description() const { return description_; }
    int sampleRate() const { return sampleRate_; }
    int outputChannels() const { return outputChannels_; }
    // Length of the stream in frames as the container reports it; 0 if unknown.
    int64_t frames() const { return frames_; }
    // False when that length is only guessed from the bit rate (raw AAC, some MP3),
    // so the stream may really be a little shorter or longer.
    bool lengthIsExact() const { return lengthIsExact_; }

    // Positions the decoder so that the next read starts exactly at `frame`.
    // Returns false when the position cannot be reached (the decoder is then
    // at its end).
    bool seek(int64_t frame);

    // Writes up to `maxFrames` interleaved frames; returns 0 only at the end of
    // the stream (or after an unrecoverable error).
    std::size_t read(float* out, std::size_t maxFrames);

    // Frame index of the next frame `read` will deliver.
    int64_t position() const { return position_; }
    // True when reading stopped on damaged data rather than at the end of the stream.
    bool failed() const;

private:
    std::unique_ptr<DecoderStream> impl_; // from the codec module
    std::string path_;
    AudioStreamDescription description_;
    int sampleRate_ = 0;
    int outputChannels_ = 0;
    int64_t frames_ = 0;
    bool lengthIsExact_ = true;
    int64_t position_ = 0;
};

} // namespace trovan
