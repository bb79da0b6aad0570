// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "library/Track.h"
#include "playback/AudioFormatInfo.h"
#include "playback/GainChoice.h"

#include <optional>

namespace trovan {

// The playback snapshot the views draw: what is loaded and whether it plays.
struct PlaybackState {
    std::optional<Track> track; // the loaded track
    bool isPlaying = false;
    std::optional<AudioFormatInfo> format; // of the loaded file
    double duration = 0;                   // seconds, the decoded length (not the tag's)
    GainChoice gain;                       // the loudness gain applied to it

    bool operator==(const PlaybackState&) const = default;
};

} // namespace trovan
