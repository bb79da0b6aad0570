// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/GainChoice.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace trovan {

namespace {

// Matches the limiter's ceiling: a tagged peak never reaches it.
constexpr double peakCeiling = 0.995;

bool usableGain(const std::optional<double>& g) {
    return g && std::isfinite(*g) && std::abs(*g) <= 60;
}
bool usablePeak(const std::optional<double>& p) {
    return p && std::isfinite(*p) && *p > 0 && *p <= 10;
}

} // namespace

GainChoice GainChoice::choose(const ReplayGain& tags, ReplayGainMode mode, double preampDb,
                              bool albumInOrder) {
    if (mode == ReplayGainMode::off) return {};
    if (!std::isfinite(preampDb)) preampDb = 0;
    preampDb = std::clamp(preampDb, -maxPreamp, maxPreamp);
    const bool album =
        mode == ReplayGainMode::album || (mode == ReplayGainMode::automatic && albumInOrder);
    struct Pick {
        Source source;
        const std::optional<double>& gain;
        const std::optional<double>& peak;
    };
    const Pick track{Source::track, tags.trackGain, tags.trackPeak};
    const Pick albumPick{Source::album, tags.albumGain, tags.albumPeak};
    const Pick& first = album ? albumPick : track;
    const Pick& second = album ? track : albumPick;
    const Pick* chosen = usableGain(first.gain)    ? &first
                         : usableGain(second.gain) ? &second
                                                   : nullptr;
    GainChoice c;
    c.source = chosen ? chosen->source : Source::untagged;
    c.db = (chosen ? *chosen->gain : 0.0) + preampDb;
    // The peak that goes with the gain, else whichever is known.
    const std::optional<double>* peak = nullptr;
    if (chosen && usablePeak(chosen->peak))
        peak = &chosen->peak;
    else if (usablePeak(tags.trackPeak) || usablePeak(tags.albumPeak))
        peak = usablePeak(tags.albumPeak) ? &tags.albumPeak : &tags.trackPeak;
    if (peak) c.db = std::min(c.db, 20 * std::log10(peakCeiling / **peak));
    return c;
}

float GainChoice::linear() const {
    if (source == Source::off) return 1.0f;
    return static_cast<float>(std::pow(10.0, db / 20));
}

std::string GainChoice::label() const {
    if (source == Source::off || (source == Source::untagged && std::abs(db) < 0.05)) return {};
    char number[32];
    const double shown = std::round(db * 10) / 10;
    std::snprintf(number, sizeof number, "%.1f dB", std::abs(shown));
    // A real minus sign, as typeset.
    const std::string sign = shown < 0 ? "\xE2\x88\x92" : shown > 0 ? "+" : "";
    const char* name = source == Source::album   ? "RG álbum "
                       : source == Source::track ? "RG pista "
                                                 : "RG ";
    return name + sign + number;
}

} // namespace trovan
