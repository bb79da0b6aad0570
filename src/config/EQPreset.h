// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A named set of ten equalizer band gains (dB, 32 Hz to 16 kHz).

#include <string>
#include <vector>

namespace trovan {

struct EQPreset {
    std::string name;
    std::vector<float> gains;

    bool operator==(const EQPreset&) const = default;

    // The presets that ship with the program, in menu order; the first is flat().
    static const std::vector<EQPreset>& builtIn();
    // "Plano": every band at 0 dB.
    static const EQPreset& flat() { return builtIn().front(); }
};

// Name written into the settings when a band is changed by hand; not a preset.
inline constexpr const char* kCustomPresetName = "Personalizado";

inline const std::vector<EQPreset>& EQPreset::builtIn() {
    static const std::vector<EQPreset> presets = {
        {"Plano", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"Rock", {5, 4, 3, 1, -1, -1, 1, 3, 4, 5}},
        {"Pop", {-1, 0, 2, 4, 5, 4, 2, 0, -1, -1}},
        {"Jazz", {4, 3, 1, 2, -1, -1, 0, 1, 3, 4}},
        {"Clásica", {5, 4, 3, 2, -1, -1, 0, 2, 3, 4}},
        {"Electrónica", {5, 4, 1, 0, -2, 2, 1, 1, 4, 5}},
        {"Más graves", {6, 5, 4, 2, 1, 0, 0, 0, 0, 0}},
        {"Voces", {-2, -3, -3, 1, 4, 4, 3, 1, 0, -2}},
        {"Acústica", {4, 4, 3, 1, 2, 1, 3, 3, 3, 2}},
    };
    return presets;
}

} // namespace trovan
