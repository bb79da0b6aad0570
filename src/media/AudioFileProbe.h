// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Length and format of an audio file as FFmpeg sees it, for files TagLib cannot open
// (raw AAC, CAF...). No decoding is done beyond what FFmpeg needs to find the stream.

#include <cstdint>
#include <optional>
#include <string>

namespace trovan {

struct AudioFileProbe {
    int64_t frames = 0;    // length in sample frames; 0 when unknown
    double sampleRate = 0; // Hz
    int channels = 0;

    bool operator==(const AudioFileProbe&) const = default;

    // None when FFmpeg cannot open the file or it has no audio stream.
    static std::optional<AudioFileProbe> read(const std::string& path);
};

} // namespace trovan
