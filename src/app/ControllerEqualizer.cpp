// SPDX-License-Identifier: GPL-3.0-or-later
// The equalizer overlay's keys and the preset commands. Every change is saved at once
// and handed to the engine's equalizer.

#include "app/AppController.h"

#include "playback/AudioEngine.h"
#include "playback/Equalizer.h"
#include "playback/EqualizerPresets.h"
#include "playback/PlaybackController.h"

namespace trovan {

namespace {
bool isChar(const Key& key, const char* c) {
    return key.kind == Key::Kind::char_ && key.text == c;
}
} // namespace

void AppController::applyEqualizer() {
    playback_->setEqualizer(state_.settings.eqGains, state_.settings.eqEnabled);
}

void AppController::applyPreset(const EQPreset& preset) {
    EqualizerPresets::applyPreset(state_.settings, preset);
    saveSettings();
    applyEqualizer();
}

void AppController::adjustBand(float delta) {
    EqualizerPresets::adjustBand(state_.settings, state_.eqBand, delta);
    saveSettings();
    applyEqualizer();
}

void AppController::savePreset(const std::string& name) {
    const auto outcome = EqualizerPresets::savePreset(state_.settings, name);
    if (outcome.ok) saveSettings();
    report(outcome.message, !outcome.ok);
}

void AppController::choosePreset(const std::string& name) {
    const auto outcome = EqualizerPresets::choosePreset(state_.settings, name);
    if (!outcome.ok) {
        report(outcome.message, true);
        return;
    }
    saveSettings();
    applyEqualizer();
}

void AppController::setEqualizerEnabled(bool on) {
    state_.settings.eqEnabled = on;
    saveSettings();
    applyEqualizer();
}

void AppController::handleEqualizerKey(const Key& key) {
    if (key.kind == Key::Kind::left || isChar(key, "h")) {
        state_.eqBand = (state_.eqBand + 9) % 10;
    } else if (key.kind == Key::Kind::right || isChar(key, "l")) {
        state_.eqBand = (state_.eqBand + 1) % 10;
    } else if (key.kind == Key::Kind::up || isChar(key, "k")) {
        adjustBand(1.0f);
    } else if (key.kind == Key::Kind::down || isChar(key, "j")) {
        adjustBand(-1.0f);
    } else if (isChar(key, "p")) {
        applyPreset(EqualizerPresets::following(state_.settings));
    } else if (isChar(key, "P")) {
        applyPreset(EqualizerPresets::preceding(state_.settings));
    } else if (isChar(key, "b")) {
        setEqualizerEnabled(!state_.settings.eqEnabled);
    } else if (isChar(key, "0")) {
        applyPreset(EQPreset::flat());
    } else if (isChar(key, " ")) {
        playback_->togglePlay();
    } else if (key.kind == Key::Kind::enter || key.kind == Key::Kind::escape || isChar(key, "=") ||
               isChar(key, "q")) {
        state_.overlay = Overlay::none();
    }
}

} // namespace trovan
