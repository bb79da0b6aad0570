// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "config/EQPreset.h"
#include "config/Settings.h"

#include <optional>
#include <string>
#include <vector>

namespace trovan {

// The rules for choosing, adjusting and saving equalizer presets. They change the
// settings value only; the caller saves the settings and applies them to the
// engine's equalizer afterwards.
struct EqualizerPresets {
    // Built-in presets in their fixed order, then the user's in stored order.
    static std::vector<EQPreset> list(const Settings& settings);
    // Names compare with case, diacritics and width ignored: "rock", "ROCK", "Rôck".
    static bool namesMatch(const std::string& a, const std::string& b);
    static std::optional<EQPreset> find(const Settings& settings, const std::string& name);

    // Sets the preset's name and gains and switches the equalizer on.
    static void applyPreset(Settings& settings, const EQPreset& preset);
    // Moves one band by `delta` dB within ±12; the preset becomes "Personalizado".
    static void adjustBand(Settings& settings, int band, float delta);

    struct Outcome {
        bool ok = false;
        std::string message; // the status line to show, error or confirmation
    };
    // Stores the current gains under `name`, replacing any custom preset of a
    // matching name; refuses the names of built-in presets.
    static Outcome savePreset(Settings& settings, const std::string& name);
    // Looks the name up (folded) and applies it, or explains what exists.
    static Outcome choosePreset(Settings& settings, const std::string& name);

    // The preset after / before the current one (compared exactly), wrapping; the
    // first / last of the list when the current name is not in it.
    static EQPreset following(const Settings& settings);
    static EQPreset preceding(const Settings& settings);
};

} // namespace trovan
