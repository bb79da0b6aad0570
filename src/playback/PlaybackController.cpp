#include "playback/PlaybackController.h"

#include <algorithm>
#include <cmath>
#include <exception>

namespace trovan {

namespace {
constexpr double restartThreshold = 3.0;
constexpr double endTolerance = 0.05;
} // namespace

PlaybackController::PlaybackController(std::unique_ptr<AudioEngine> engine)
    : engine_(std::move(engine)), rng_(std::random_device{}()) {
    engine_->onTrackEnd = [alive = std::weak_ptr<char>(alive_), self = this] {
        if (alive.lock()) self->trackEnded();
    };
}

PlaybackController::~PlaybackController() {
    engine_->onTrackEnd = nullptr;
}

void PlaybackController::changed() {
    if (onChange) onChange();
}

void PlaybackController::play(std::vector<std::string> paths, int startAt) {
    queue_.replace(std::move(paths), startAt, rng_);
    start(queue_.currentPath(), queue_.paths.size());
}

void PlaybackController::start(std::optional<std::string> path, std::size_t attemptsLeft) {
    while (path) {
        std::optional<Track> track = lookup ? lookup(*path) : std::nullopt;
        if (!track) track = Track::read(*path);
        if (!track) break;
        try {
            AudioFormatInfo info = engine_->load(track->path);
            state_.track = std::move(*track);
            state_.format = info;
            state_.duration = engine_->hasFile() ? engine_->duration() : 0;
            engine_->play();
            state_.isPlaying = engine_->isPlaying();
            changed();
            return;
        } catch (const std::exception&) {
            if (onError) onError("No se pudo reproducir: " + track->displayTitle());
        }
        if (attemptsLeft < 2) break;
        path = queue_.advance(false);
        --attemptsLeft;
    }
    state_.isPlaying = false;
    changed();
}

void PlaybackController::resume() {
    if (!state_.track) return;
    if (engine_->isPlaying()) {
        if (!state_.isPlaying) {
            state_.isPlaying = true;
            changed();
        }
        return;
    }
    const bool restart = engine_->currentTime() >= state_.duration - endTolerance;
    if (restart) engine_->seek(0);
    engine_->play();
    state_.isPlaying = engine_->isPlaying();
    changed();
    if (restart && onSeek) onSeek();
}

void PlaybackController::pause() {
    engine_->pause();
    state_.isPlaying = false;
    changed();
}

void PlaybackController::togglePlay() {
    if (state_.isPlaying)
        pause();
    else
        resume();
}

void PlaybackController::seek(double seconds) {
    if (!state_.track) return;
    engine_->seek(seconds);
    state_.isPlaying = engine_->isPlaying();
    changed();
    if (onSeek) onSeek();
}

void PlaybackController::next() {
    if (auto path = queue_.advance(false)) start(path, queue_.paths.size());
}

void PlaybackController::previous() {
    if (engine_->currentTime() > restartThreshold) {
        seek(0);
        return;
    }
    if (auto path = queue_.retreat())
        start(path, queue_.paths.size());
    else
        seek(0);
}

void PlaybackController::refreshCurrentTrack() {
    if (!state_.track || !lookup) return;
    auto fresh = lookup(state_.track->path);
    if (fresh && *fresh != *state_.track) {
        state_.track = std::move(*fresh);
        changed();
    }
}

void PlaybackController::trackEnded() {
    if (auto path = queue_.advance(true)) {
        start(path, queue_.paths.size());
        return;
    }
    state_.isPlaying = false;
    changed();
}

void PlaybackController::setShuffle(bool on) {
    queue_.setShuffle(on, rng_);
}

void PlaybackController::setRepeatMode(RepeatMode mode) {
    queue_.repeatMode = mode;
}

void PlaybackController::setVolume(float volume, bool muted) {
    if (std::isnan(volume)) volume = 0;
    engine_->setVolume(muted ? 0.0f : std::clamp(volume, 0.0f, 1.0f));
}

} // namespace trovan
