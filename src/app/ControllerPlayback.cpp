// SPDX-License-Identifier: GPL-3.0-or-later
// Playback from the lists and the player panel: Enter on rows, the transport buttons,
// seeking, volume, mute, shuffle and repeat (each saved as it changes).

#include "app/AppController.h"

#include "playback/AudioEngine.h"
#include "playback/PlaybackController.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace trovan {

void AppController::setVolume(float volume) {
    if (std::isnan(volume)) volume = 0;
    state_.muted = false;
    state_.settings.volume = std::clamp(volume, 0.0f, 1.0f);
    saveSettings();
    playback_->setVolume(state_.settings.volume, false);
}

void AppController::toggleMute() {
    state_.muted = !state_.muted;
    playback_->setVolume(state_.settings.volume, state_.muted);
}

void AppController::toggleShuffle() {
    const bool on = !playback_->queue().shuffle;
    playback_->setShuffle(on);
    state_.settings.shuffle = on;
    saveSettings();
}

void AppController::cycleRepeat() {
    setRepeatMode(nextRepeatMode(state_.settings.repeatMode));
}

void AppController::setRepeatMode(RepeatMode mode) {
    state_.settings.repeatMode = mode;
    playback_->setRepeatMode(mode);
    saveSettings();
}

void AppController::setReplayGainMode(const std::string& mode) {
    const auto parsed = replayGainModeFromString(mode);
    if (!parsed) return;
    state_.settings.replayGain = *parsed;
    playback_->setLoudness(*parsed, state_.settings.preamp);
    saveSettings();
    const char* names[] = {"no", "pista", "álbum", "auto (álbum si suena en orden)"};
    report(std::string("ReplayGain: ") + names[static_cast<int>(*parsed)]);
}

void AppController::setPreamp(double db) {
    if (!std::isfinite(db)) return;
    state_.settings.preamp = std::clamp(db, -GainChoice::maxPreamp, GainChoice::maxPreamp);
    playback_->setLoudness(state_.settings.replayGain, state_.settings.preamp);
    saveSettings();
    char text[64];
    std::snprintf(text, sizeof text, "Preamplificación: %+.1f dB", state_.settings.preamp);
    report(text);
}

void AppController::setCrossfade(double seconds) {
    if (!std::isfinite(seconds)) return;
    state_.settings.crossfade = std::clamp(seconds, 0.0, 12.0);
    playback_->setCrossfade(state_.settings.crossfade);
    saveSettings();
    char text[96];
    if (state_.settings.crossfade > 0)
        std::snprintf(text, sizeof text, "Fundido entre pistas: %g s", state_.settings.crossfade);
    else
        std::snprintf(text, sizeof text, "Fundido entre pistas: no (sin pausas)");
    report(text);
}

void AppController::seekTo(double seconds) {
    if (!std::isfinite(seconds)) return;
    const double duration = playback_->state().duration;
    double target = std::max(0.0, seconds);
    if (duration > 0) target = std::min(target, duration);
    playback_->seek(target);
}

void AppController::movePlayerButton(int d) {
    state_.playerButton =
        static_cast<PlayerButton>((static_cast<int>(state_.playerButton) + d + 5) % 5);
}

void AppController::press(PlayerButton button) {
    switch (button) {
    case PlayerButton::shuffle:
        toggleShuffle();
        break;
    case PlayerButton::previous:
        playback_->previous();
        break;
    case PlayerButton::playPause:
        playback_->togglePlay();
        break;
    case PlayerButton::next:
        playback_->next();
        break;
    case PlayerButton::repeatMode:
        cycleRepeat();
        break;
    }
}

void AppController::activate() {
    switch (state_.focus) {
    case Focus::artists:
        if (const int c = state_.artists.cursor;
            c >= 0 && c < static_cast<int>(state_.artistRows.size()))
            if (const auto* list =
                    state_.artistRows[static_cast<std::size_t>(c)].get<ArtistRow::Playlist>()) {
                loadPlaylist(list->name);
                break;
            }
        state_.focus = Focus::library;
        snapLibraryCursor();
        break;
    case Focus::library: {
        const int c = state_.library.cursor;
        if (c < 0 || c >= static_cast<int>(state_.libraryRows.size())) return;
        const LibraryRow& row = state_.libraryRows[static_cast<std::size_t>(c)];
        if (const auto* t = row.get<LibraryRow::Track>()) {
            auto paths = trackPaths(state_.index, state_.libraryRows);
            const auto at =
                std::find(paths.begin(), paths.end(), state_.index.table().path(t->id)) -
                paths.begin();
            playback_->play(std::move(paths), static_cast<int>(at));
        } else if (const auto* a = row.get<LibraryRow::Album>()) {
            auto paths = albumPaths(a->album);
            if (!paths.empty()) playback_->play(std::move(paths), 0);
        }
        break;
    }
    case Focus::player:
        press(state_.playerButton);
        break;
    }
}

} // namespace trovan
