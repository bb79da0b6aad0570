// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/EqualizerPresets.h"

#include "text/Text.h"

#include <algorithm>

namespace trovan {

namespace {
constexpr int bands = 10;
constexpr float limit = 12.0f;
} // namespace

std::vector<EQPreset> EqualizerPresets::list(const Settings& settings) {
    std::vector<EQPreset> all = EQPreset::builtIn();
    all.insert(all.end(), settings.customPresets.begin(), settings.customPresets.end());
    return all;
}

bool EqualizerPresets::namesMatch(const std::string& a, const std::string& b) {
    return text::fold(a) == text::fold(b);
}

std::optional<EQPreset> EqualizerPresets::find(const Settings& settings, const std::string& name) {
    for (auto& preset : list(settings))
        if (namesMatch(preset.name, name)) return preset;
    return std::nullopt;
}

void EqualizerPresets::applyPreset(Settings& settings, const EQPreset& preset) {
    settings.eqPreset = preset.name;
    settings.eqGains = preset.gains;
    settings.eqEnabled = true;
}

void EqualizerPresets::adjustBand(Settings& settings, int band, float delta) {
    if (band < 0 || band >= bands) return;
    if (settings.eqGains.size() < static_cast<std::size_t>(bands))
        settings.eqGains.resize(static_cast<std::size_t>(bands), 0.0f);
    float& gain = settings.eqGains[static_cast<std::size_t>(band)];
    gain = std::clamp(gain + delta, -limit, limit);
    settings.eqPreset = kCustomPresetName;
    settings.eqEnabled = true;
}

EqualizerPresets::Outcome EqualizerPresets::savePreset(Settings& settings,
                                                       const std::string& name) {
    for (const auto& preset : EQPreset::builtIn())
        if (namesMatch(preset.name, name))
            return {false, name + " es un preset integrado; usa otro nombre"};
    auto& custom = settings.customPresets;
    custom.erase(std::remove_if(custom.begin(), custom.end(),
                                [&](const EQPreset& p) { return namesMatch(p.name, name); }),
                 custom.end());
    custom.push_back(EQPreset{name, settings.eqGains});
    settings.eqPreset = name;
    return {true, "Preset guardado: " + name};
}

EqualizerPresets::Outcome EqualizerPresets::choosePreset(Settings& settings,
                                                         const std::string& name) {
    if (auto preset = find(settings, name)) {
        applyPreset(settings, *preset);
        return {true, {}};
    }
    std::string names;
    for (const auto& preset : list(settings)) {
        if (!names.empty()) names += ", ";
        names += preset.name;
    }
    return {false, "No existe el preset " + name + ". Disponibles: " + names};
}

EQPreset EqualizerPresets::following(const Settings& settings) {
    auto all = list(settings);
    auto it = std::find_if(all.begin(), all.end(),
                           [&](const EQPreset& p) { return p.name == settings.eqPreset; });
    if (it == all.end() || it + 1 == all.end()) return all.front();
    return *(it + 1);
}

EQPreset EqualizerPresets::preceding(const Settings& settings) {
    auto all = list(settings);
    auto it = std::find_if(all.begin(), all.end(),
                           [&](const EQPreset& p) { return p.name == settings.eqPreset; });
    if (it == all.end() || it == all.begin()) return all.back();
    return *(it - 1);
}

} // namespace trovan
