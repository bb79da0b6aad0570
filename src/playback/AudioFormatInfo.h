// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
#include <string>

namespace trovan {

struct AudioStreamDescription;

// What the player panel says about the loaded file's format.
struct AudioFormatInfo {
    std::string codec;
    double sampleRate = 0;       // Hz, of the file itself
    std::optional<int> bitDepth; // absent for lossy codecs and unknown depths
    int channels = 0;            // channels per frame of the file

    // "FLAC · 44.1 kHz · 16 bit", "MP3 · 48 kHz"; the channel count is not shown.
    std::string summary() const;

    // Builds the description from the decoder's stream facts; `path` decides the
    // container name for PCM and the label of codecs we have no name for.
    static AudioFormatInfo describe(const AudioStreamDescription& stream, const std::string& path);

    bool operator==(const AudioFormatInfo&) const = default;
};

} // namespace trovan
