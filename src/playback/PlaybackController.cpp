// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/PlaybackController.h"

#include <algorithm>
#include <cmath>
#include <exception>

namespace trovan {

namespace {
constexpr double restartThreshold = 3.0;
constexpr double endTolerance = 0.05;

// b comes right after a on the same album.
bool followsOnAlbum(const Track& a, const Track& b) {
    return !a.album.empty() && a.album == b.album && a.groupArtist() == b.groupArtist() &&
           std::pair(a.discNumber, a.trackNumber) < std::pair(b.discNumber, b.trackNumber);
}
} // namespace

PlaybackController::PlaybackController(std::unique_ptr<AudioEngine> engine)
    : engine_(std::move(engine)), rng_(std::random_device{}()) {
    const auto alive = alive_.watch();
    engine_->onTrackEnd = [alive, self = this] {
        if (alive) self->trackEnded();
    };
    engine_->onTrackJoined = [alive, self = this](const std::string& path) {
        if (alive) self->joined(path);
    };
    engine_->onNextFailed = [alive, self = this](const std::string& path) {
        if (alive) self->nextFailed(path);
    };
    engine_->onDurationChanged = [alive, self = this] {
        if (!alive) return;
        self->state_.duration = self->engine_->duration();
        self->changed();
    };
    engine_->onError = [alive, self = this](const std::string& message) {
        if (alive && self->onError) self->onError(message);
    };
}

PlaybackController::~PlaybackController() {
    engine_->onTrackEnd = nullptr;
    engine_->onTrackJoined = nullptr;
    engine_->onNextFailed = nullptr;
    engine_->onDurationChanged = nullptr;
    engine_->onError = nullptr;
}

// What the library knows of a file, else the tags read with the prepared track, else
// just its path: nothing is read from the disk here.
Track PlaybackController::trackFor(const std::string& path) const {
    if (auto known = lookup ? lookup(path) : std::nullopt) return std::move(*known);
    if (preparedTrack_ && *preparedTrack_ && (*preparedTrack_)->path == path)
        return **preparedTrack_;
    Track bare;
    bare.path = path;
    return bare;
}

// Names the track that follows the current one to the engine, which opens it ahead.
void PlaybackController::prepareFollowing() {
    failedAhead_ = 0;
    preparedAt_ = queue_.following(queue_.position, true);
    prepare();
}

void PlaybackController::prepare() {
    auto path = queue_.pathAt(preparedAt_);
    AudioEngine::Task alsoThere;
    std::optional<Track> known = path && lookup ? lookup(*path) : std::nullopt;
    if (path && !known) {
        auto read = std::make_shared<std::optional<Track>>();
        alsoThere = [read, p = *path] { *read = Track::read(p); };
        preparedTrack_ = read;
    }
    AudioEngine::Transition transition;
    if (path) {
        const Track next = known ? *known : trackFor(*path);
        transition.gain = gainAt(next, preparedAt_).linear();
        // One album played in order goes on without a gap, whatever the setting.
        const bool sameAlbum =
            !queue_.shuffle && state_.track && followsOnAlbum(*state_.track, next);
        transition.crossfadeSeconds = sameAlbum ? 0.0 : crossfadeSeconds_;
    }
    engine_->prepareNext(path, std::move(alsoThere), transition);
}

bool PlaybackController::albumInOrder(std::optional<int> at) const {
    if (!at || queue_.shuffle) return false;
    auto here = queue_.pathAt(at);
    if (!here) return false;
    const Track track = trackFor(*here);
    if (auto before = queue_.pathAt(*at - 1); before && followsOnAlbum(trackFor(*before), track))
        return true;
    auto after = queue_.pathAt(*at + 1);
    return after && followsOnAlbum(track, trackFor(*after));
}

GainChoice PlaybackController::gainAt(const Track& track, std::optional<int> at) const {
    return GainChoice::choose(track.replayGain, gainMode_, preampDb_, albumInOrder(at));
}

// The current track's gain: to the engine (smoothly) and to the panel.
void PlaybackController::applyGain() {
    const GainChoice gain = state_.track ? gainAt(*state_.track, queue_.position) : GainChoice{};
    engine_->setGain(gain.linear());
    state_.gain = gain;
}

void PlaybackController::setLoudness(ReplayGainMode mode, double preampDb) {
    gainMode_ = mode;
    preampDb_ = std::isfinite(preampDb)
                    ? std::clamp(preampDb, -GainChoice::maxPreamp, GainChoice::maxPreamp)
                    : 0.0;
    const GainChoice before = state_.gain;
    applyGain();
    if (engine_->hasFile()) prepare();
    if (!(state_.gain == before)) changed();
}

void PlaybackController::setCrossfade(double seconds) {
    crossfadeSeconds_ = std::isfinite(seconds) ? std::clamp(seconds, 0.0, 12.0) : 0.0;
    if (engine_->hasFile()) prepare();
}

// The prepared track is now the one heard: the queue moves on once, and elapsed
// time starts again from zero.
void PlaybackController::joined(const std::string& path) {
    if (queue_.pathAt(preparedAt_) == path) queue_.position = preparedAt_;
    state_.track = trackFor(path);
    state_.format = engine_->formatInfo();
    state_.duration = engine_->duration();
    state_.isPlaying = engine_->isPlaying();
    applyGain();
    prepareFollowing();
    changed();
}

void PlaybackController::nextFailed(const std::string& path) {
    if (queue_.pathAt(preparedAt_) != path) return;
    if (onError) onError("No se pudo reproducir: " + trackFor(path).displayTitle());
    // Skip it, as the user's next would; give up after a round of failures.
    if (++failedAhead_ >= queue_.order.size()) {
        preparedAt_.reset();
    } else {
        const auto skipped = queue_.following(preparedAt_, false);
        preparedAt_ = skipped == preparedAt_ ? std::nullopt : skipped;
    }
    prepare();
}

void PlaybackController::changed() {
    if (onChange) onChange();
}

void PlaybackController::play(std::vector<std::string> paths, int startAt) {
    queue_.replace(std::move(paths), startAt, rng_);
    lookUpDurations();
    start(queue_.currentPath(), queue_.paths.size());
    if (onQueueChange) onQueueChange();
}

void PlaybackController::start(std::optional<std::string> path, std::size_t attemptsLeft) {
    if (!path) {
        stopWithNothing();
        return;
    }
    held_.reset();
    parked_.reset();
    startAt_.reset();
    const std::string wanted = *path;
    auto known = lookup ? lookup(wanted) : std::nullopt;
    // A file the library does not know: its tags are read where the file is opened.
    auto read = std::make_shared<std::optional<Track>>(known);
    AudioEngine::Task alsoThere;
    if (!known) alsoThere = [read, wanted] { *read = Track::read(wanted); };
    const uint64_t request = ++startCount_;
    loading_ = true;
    playWhenLoaded_ = true;
    if (!known) {
        known.emplace();
        known->path = wanted;
    }
    state_ = PlaybackState{std::move(known), false, std::nullopt, 0, {}};
    preparedAt_.reset();
    engine_->loadInBackground(wanted, std::move(alsoThere),
                              [alive = alive_.watch(), self = this, request, wanted, read,
                               attemptsLeft](std::optional<AudioFormatInfo> info) {
                                  if (alive && request == self->startCount_)
                                      self->started(wanted, std::move(info), std::move(*read),
                                                    attemptsLeft);
                              });
    changed();
}

void PlaybackController::started(const std::string& path, std::optional<AudioFormatInfo> info,
                                 std::optional<Track> track, std::size_t attemptsLeft) {
    loading_ = false;
    if (!track) {
        track.emplace();
        track->path = path;
    }
    if (info) {
        state_.track = std::move(*track);
        state_.format = std::move(info);
        state_.duration = engine_->duration();
        if (startAt_) engine_->seek(*startAt_);
        startAt_.reset();
        applyGain();
        if (playWhenLoaded_) engine_->play();
        state_.isPlaying = engine_->isPlaying();
        prepareFollowing();
        changed();
        return;
    }
    if (onError) onError("No se pudo reproducir: " + track->displayTitle());
    if (attemptsLeft < 2) {
        stopWithNothing();
        return;
    }
    start(queue_.advance(false), attemptsLeft - 1);
}

// Nothing could be loaded: the old track must not go on behind a stopped screen.
void PlaybackController::stopWithNothing() {
    ++startCount_;
    parked_.reset();
    loading_ = false;
    engine_->unload();
    state_ = PlaybackState{};
    preparedAt_.reset();
    changed();
}

void PlaybackController::resume() {
    if (parked_) {
        const double at = *parked_;
        start(queue_.currentPath(), 1);
        startAt_ = at;
        return;
    }
    if (held_) {
        held_->playing = true;
        state_.isPlaying = true;
        changed();
        return;
    }
    if (loading_) playWhenLoaded_ = true;
    if (!state_.track && !loading_ && !queue_.order.empty()) {
        // Tracks were queued with nothing playing: play from the current one, or the first.
        if (!queue_.position) queue_.position = 0;
        start(queue_.currentPath(), queue_.paths.size());
        if (onQueueChange) onQueueChange();
        return;
    }
    if (!state_.track || loading_) return;
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
    if (parked_) return; // nothing is open, nothing plays
    if (held_) {
        held_->playing = false;
        state_.isPlaying = false;
        changed();
        return;
    }
    if (loading_) playWhenLoaded_ = false;
    engine_->pause();
    state_.isPlaying = engine_->isPlaying();
    changed();
}

void PlaybackController::togglePlay() {
    if ((!held_ && loading_) ? playWhenLoaded_ : state_.isPlaying)
        pause();
    else
        resume();
}

void PlaybackController::seek(double seconds) {
    if (parked_) {
        parked_ = std::max(0.0, state_.duration > 0 ? std::min(seconds, state_.duration) : seconds);
        changed();
        if (onSeek) onSeek();
        return;
    }
    if (held_) {
        held_->position = std::clamp(seconds, 0.0, std::max(0.0, state_.duration));
        changed();
        if (onSeek) onSeek();
        return;
    }
    if (!state_.track || loading_) return;
    engine_->seek(seconds);
    state_.isPlaying = engine_->isPlaying();
    changed();
    if (onSeek) onSeek();
}

void PlaybackController::next() {
    if (auto path = queue_.advance(false)) start(path, queue_.paths.size());
}

void PlaybackController::previous() {
    if (position() > restartThreshold) {
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
    // A tag write may have reloaded the engine, dropping the track it had opened ahead;
    // naming the same one again costs nothing when it is still open.
    if (engine_->hasFile()) prepareFollowing();
    auto fresh = lookup(state_.track->path);
    if (fresh && *fresh != *state_.track) {
        // A kept track shown before the library was loaded gets its length now.
        if (parked_) state_.duration = static_cast<double>(fresh->durationMs) / 1e3;
        state_.track = std::move(*fresh);
        applyGain(); // new loudness tags apply at once
        changed();
    }
}

void PlaybackController::followMoves(const std::unordered_map<std::string, std::string>& moves) {
    bool touched = false;
    for (auto& path : queue_.paths)
        if (auto it = moves.find(path); it != moves.end()) {
            path = it->second;
            touched = true;
        }
    if (state_.track)
        if (auto it = moves.find(state_.track->path); it != moves.end()) {
            state_.track->path = it->second;
            touched = true;
        }
    if (!touched) return;
    // The track named to play next may be one that moved.
    if (engine_->hasFile()) prepareFollowing();
    changed();
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

double PlaybackController::position() const {
    if (held_) return held_->position;
    if (parked_) return *parked_;
    return state_.track ? engine_->currentTime() : 0.0;
}

void PlaybackController::setEqualizer(const std::vector<float>& gains, bool enabled) {
    engine_->equalizer().apply(gains, enabled);
}

void PlaybackController::beginFileWrite(const std::vector<std::string>& paths) {
    if (held_ || parked_ || !state_.track) return;
    const std::string& path = state_.track->path;
    if (std::find(paths.begin(), paths.end(), path) == paths.end()) return;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || st.st_nlink < 2) return;
    if (loading_) {
        // The load under way would read the file mid-write: it starts again afterwards.
        held_ = Held{path, startAt_.value_or(0), playWhenLoaded_};
        ++startCount_;
        loading_ = false;
    } else {
        held_ = Held{path, engine_->currentTime(), engine_->isPlaying()};
    }
    engine_->unload();
    preparedAt_.reset();
}

void PlaybackController::endFileWrite() {
    if (!held_) return;
    const Held held = *held_;
    start(held.path, queue_.paths.size());
    startAt_ = held.position;
    playWhenLoaded_ = held.playing;
    state_.isPlaying = false;
}

void PlaybackController::lookUpDurations() {
    auto& d = queue_.durations;
    if (d.size() != queue_.paths.size()) d.assign(queue_.paths.size(), PlaybackQueue::kUnlooked);
    if (!durationOf) return;
    for (std::size_t i = 0; i < d.size(); ++i)
        if (d[i] == PlaybackQueue::kUnlooked)
            d[i] = std::max<int64_t>(0, durationOf(queue_.paths[i]));
}

void PlaybackController::refreshDurations() {
    queue_.durations.assign(queue_.paths.size(), PlaybackQueue::kUnlooked);
    lookUpDurations();
}

void PlaybackController::queueChanged() {
    lookUpDurations();
    if (engine_->hasFile() && !loading_) prepareFollowing();
    if (onQueueChange) onQueueChange();
}

void PlaybackController::enqueue(const std::vector<std::string>& paths, bool next) {
    if (paths.empty()) return;
    const std::size_t at =
        next ? (queue_.position ? static_cast<std::size_t>(*queue_.position) + 1 : 0)
             : queue_.order.size();
    queue_.insert(at, paths);
    queueChanged();
}

void PlaybackController::playAt(std::size_t at) {
    if (at >= queue_.order.size()) return;
    queue_.position = static_cast<int>(at);
    start(queue_.currentPath(), queue_.paths.size());
    if (onQueueChange) onQueueChange();
}

bool PlaybackController::removeAt(std::size_t at) {
    if (queue_.position && static_cast<std::size_t>(*queue_.position) == at) return false;
    if (!queue_.remove(at)) return false;
    queueChanged();
    return true;
}

bool PlaybackController::moveAt(std::size_t at, int delta) {
    if (!queue_.move(at, delta)) return false;
    queueChanged();
    return true;
}

std::size_t PlaybackController::clearUpcoming() {
    const std::size_t gone = queue_.clearAfterCurrent();
    if (gone > 0) queueChanged();
    return gone;
}

void PlaybackController::restore(PlaybackQueue saved, double seconds) {
    saved.repeatMode = queue_.repeatMode;
    // A play order kept from a shuffled run is only used while shuffle is still on;
    // otherwise the user's order comes back with the same entry current.
    saved.shuffle = true;
    if (!queue_.shuffle) saved.setShuffle(false, rng_);
    queue_ = std::move(saved);
    lookUpDurations();
    if (auto path = queue_.currentPath()) {
        // Shown where it was, paused; the file is opened when the user plays it, so a
        // start grabs no sound device and reads no audio.
        ++startCount_;
        loading_ = false;
        Track track = trackFor(*path);
        const double length = static_cast<double>(track.durationMs) / 1e3;
        state_ = PlaybackState{std::move(track), false, std::nullopt, length, {}};
        // Not clamped to the length: the library may not be loaded yet to tell it.
        parked_ = std::max(0.0, seconds);
        changed();
    }
    if (onQueueChange) onQueueChange();
}

void PlaybackController::setShuffle(bool on) {
    queue_.setShuffle(on, rng_);
    if (engine_->hasFile()) prepareFollowing();
    if (onQueueChange) onQueueChange();
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
