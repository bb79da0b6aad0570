// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// EBU R128 loudness of tracks and albums, measured on the program's own decoding, and
// the ReplayGain 2.0 tags that follow from it (reference -18 LUFS).

#include "tags/TagPatch.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace trovan {

class LoudnessAnalysis {
public:
    static constexpr double referenceLufs = -18;

    // One track's measurement.
    struct Track {
        std::string path;
        bool ok = false;     // decoded and measured
        bool silent = false; // under 400 ms, or silence: no loudness to speak of
        double lufs = 0;     // integrated loudness, when neither
        double peak = 0;     // true peak, linear
        double seconds = 0;  // decoded
        std::string error;   // why not ok, in Spanish
    };

    // Decodes and measures one file; `cancel` stops it early (the result is not ok).
    static Track measure(const std::string& path, const std::atomic<bool>* cancel = nullptr);

    struct Album {
        std::optional<double> lufs; // none when every track was silent or failed
        double peak = 0;
    };
    // The integrated loudness of the files played one after the other, decoded again
    // (the gating blocks that straddle two tracks count as they are heard); none when
    // it is silence, too short, or cancelled. Files that cannot be read are left out.
    static std::optional<double> measureJoined(const std::vector<std::string>& paths,
                                               const std::atomic<bool>* cancel = nullptr);
    // The album's peak (the highest of its tracks') with its joined loudness.
    static Album album(const std::vector<const Track*>& tracks, std::optional<double> joinedLufs);

    // The four ReplayGain tags for a track measured as `track` within `album` (none when
    // it has nothing to write: silent or failed). A track alone is its own album.
    static std::optional<TagPatch> patch(const Track& track, const Album& album);
};

} // namespace trovan
