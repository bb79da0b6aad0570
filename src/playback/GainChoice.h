// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The loudness gain playback applies to one track, and how the player panel names it.

#include "config/ReplayGainMode.h"
#include "library/ReplayGain.h"

#include <string>

namespace trovan {

struct GainChoice {
    enum class Source { off, track, album, untagged };
    Source source = Source::off;
    double db = 0; // what is applied, after the peak limit
    bool operator==(const GainChoice&) const = default;

    // -15 to +15 dB.
    static constexpr double maxPreamp = 15;

    // The gain for a track's tags: the mode's gain (the other one when it is missing)
    // plus the preamp, or the preamp alone for an untagged track, lowered where the peak
    // would pass full scale. `albumInOrder` decides what "auto" takes.
    static GainChoice choose(const ReplayGain& tags, ReplayGainMode mode, double preampDb,
                             bool albumInOrder);
    float linear() const;
    // "RG álbum −6.2 dB", "RG pista +1.0 dB", "RG +2.0 dB" (preamp on an untagged track);
    // empty when nothing is applied.
    std::string label() const;
};

} // namespace trovan
