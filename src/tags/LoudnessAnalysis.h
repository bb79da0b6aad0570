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

    // One track's measurement. Kept whole so that an album's loudness can be measured
    // over all its tracks together afterwards.
    struct Track {
        Track();
        ~Track();
        Track(Track&&) noexcept;
        Track& operator=(Track&&) noexcept;

        std::string path;
        bool ok = false;     // decoded and measured
        bool silent = false; // under 400 ms, or silence: no loudness to speak of
        double lufs = 0;     // integrated loudness, when neither
        double peak = 0;     // true peak, linear
        double seconds = 0;  // decoded
        std::string error;   // why not ok, in Spanish

        struct State;
        std::unique_ptr<State> state; // the meter, for the album's measurement
    };

    // Decodes and measures one file; `cancel` stops it early (the result is not ok).
    static Track measure(const std::string& path, const std::atomic<bool>* cancel = nullptr);

    struct Album {
        std::optional<double> lufs; // none when every track was silent or failed
        double peak = 0;
    };
    // The loudness of the tracks played one after the other, and the highest peak.
    static Album measureAlbum(const std::vector<const Track*>& tracks);

    // The four ReplayGain tags for a track measured as `track` within `album` (none when
    // it has nothing to write: silent or failed). A track alone is its own album.
    static std::optional<TagPatch> patch(const Track& track, const Album& album);
};

} // namespace trovan
