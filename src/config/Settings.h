// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The user's choices kept between runs in config.json.

#include "config/EQPreset.h"
#include "config/RepeatMode.h"
#include "config/ReplayGainMode.h"

#include <string>
#include <vector>

namespace trovan {

struct Settings {
    std::vector<std::string> roots; // music folders, in the order they were added
    float volume = 0.8f;            // 0.0 - 1.0
    bool shuffle = false;
    RepeatMode repeatMode = RepeatMode::off;
    bool eqEnabled = true;
    std::string eqPreset = EQPreset::flat().name;
    std::vector<float> eqGains = EQPreset::flat().gains;
    std::vector<EQPreset> customPresets;
    // How covers are drawn: "auto" (what the terminal can show), "kitty", "sixel" or
    // "bloques" (half blocks).
    std::string coverMode = "auto";
    bool watch = true;   // follow the folders' changes as they happen
    int pollMinutes = 5; // how often folders that cannot be watched are looked at again
    ReplayGainMode replayGain = ReplayGainMode::automatic;
    double preamp = 0;    // dB, -15 to +15: added to the ReplayGain gain (alone when untagged)
    double crossfade = 0; // seconds, 0 to 12; 0 joins tracks without a gap

    bool operator==(const Settings&) const = default;
};

} // namespace trovan
