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
    std::weak_ptr<char> alive = alive_;
    engine_->onTrackEnd = [alive, self = this] {
        if (alive.lock()) self->trackEnded();
    };
    engine_->onTrackJoined = [alive, self = this](const std::string& path) {
        if (alive.lock()) self->joined(path);
    };
    engine_->onNextFailed = [alive, self = this](const std::string& path) {
        if (alive.lock()) self->nextFailed(path);
    };
    engine_->onDurationChanged = [alive, self = this] {
        if (!alive.lock()) return;
        self->state_.duration = self->engine_->duration();
        self->changed();
    };
    engine_->onError = [alive, self = this](const std::string& message) {
        if (alive.lock() && self->onError) self->onError(message);
    };
}

PlaybackController::~PlaybackController() {
    engine_->onTrackEnd = nullptr;
    engine_->onTrackJoined = nullptr;
    engine_->onNextFailed = nullptr;
    engine_->onDurationChanged = nullptr;
    engine_->onError = nullptr;
}

std::optional<Track> PlaybackController::trackFor(const std::string& path) const {
    std::optional<Track> track = lookup ? lookup(path) : std::nullopt;
    if (!track) track = Track::read(path);
    return track;
}

// Names the track that follows the current one to the engine, which opens it ahead.
void PlaybackController::prepareFollowing() {
    failedAhead_ = 0;
    preparedAt_ = queue_.following(queue_.position, true);
    engine_->prepareNext(queue_.pathAt(preparedAt_));
}

// The prepared track is now the one heard: the queue moves on once, and elapsed
// time starts again from zero.
void PlaybackController::joined(const std::string& path) {
    if (queue_.pathAt(preparedAt_) == path) queue_.position = preparedAt_;
    auto track = trackFor(path);
    if (!track) {
        track.emplace();
        track->path = path;
    }
    state_.track = std::move(*track);
    state_.format = engine_->formatInfo();
    state_.duration = engine_->duration();
    state_.isPlaying = engine_->isPlaying();
    prepareFollowing();
    changed();
}

void PlaybackController::nextFailed(const std::string& path) {
    if (queue_.pathAt(preparedAt_) != path) return;
    auto track = trackFor(path);
    if (onError)
        onError("No se pudo reproducir: " +
                (track ? track->displayTitle() : std::string(Track::displayTitleOf(path, ""))));
    // Skip it, as the user's next would; give up after a round of failures.
    if (++failedAhead_ >= queue_.order.size()) {
        preparedAt_.reset();
    } else {
        const auto skipped = queue_.following(preparedAt_, false);
        preparedAt_ = skipped == preparedAt_ ? std::nullopt : skipped;
    }
    engine_->prepareNext(queue_.pathAt(preparedAt_));
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
        std::optional<Track> track = trackFor(*path);
        if (!track) break;
        try {
            AudioFormatInfo info = engine_->load(track->path);
            state_.track = std::move(*track);
            state_.format = info;
            state_.duration = engine_->hasFile() ? engine_->duration() : 0;
            engine_->play();
            state_.isPlaying = engine_->isPlaying();
            prepareFollowing();
            changed();
            return;
        } catch (const std::exception&) {
            if (onError) onError("No se pudo reproducir: " + track->displayTitle());
        }
        if (attemptsLeft < 2) break;
        path = queue_.advance(false);
        --attemptsLeft;
    }
    // Nothing could be loaded: the old track must not go on behind a stopped screen.
    engine_->unload();
    state_ = PlaybackState{};
    preparedAt_.reset();
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
    const bool restart = engine_->currentTime() >= engine_->duration() - endTolerance;
    if (restart) engine_->seek(0);
    engine_->play();
    state_.isPlaying = engine_->isPlaying();
    changed();
    if (restart && onSeek) onSeek();
}

void PlaybackController::pause() {
    engine_->pause();
    state_.isPlaying = engine_->isPlaying();
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
    // The engine had nothing ready to go on with (the next track was named too late,
    // or every one after it failed): load the prepared position the slow way.
    queue_.position = preparedAt_;
    if (auto path = queue_.currentPath()) {
        start(path, queue_.paths.size());
        return;
    }
    state_.isPlaying = engine_->isPlaying();
    changed();
}

void PlaybackController::setShuffle(bool on) {
    queue_.setShuffle(on, rng_);
    if (engine_->hasFile()) prepareFollowing();
}

void PlaybackController::setRepeatMode(RepeatMode mode) {
    queue_.repeatMode = mode;
    if (engine_->hasFile()) prepareFollowing();
}

void PlaybackController::setVolume(float volume, bool muted) {
    if (std::isnan(volume)) volume = 0;
    engine_->setVolume(muted ? 0.0f : std::clamp(volume, 0.0f, 1.0f));
}

} // namespace trovan
