// SPDX-License-Identifier: GPL-3.0-or-later
// The owner's side of the engine: loading, the transport, joins and positions.
//
// Threads: every function here runs on the owner's thread. What comes back from the
// decoder thread and the output (end of a segment, a join heard, a length learnt, a
// prepared track that failed) arrives as posted tasks that hold the `alive_` token
// weakly and carry the `generation_` (bumped at every stop) or `loadCount_` (bumped
// at every load) they belong to; a task whose number is no longer current is stale
// and does nothing.

#include "playback/AudioEngine.h"

#include "media/AudioDecoder.h"
#include "playback/engine/DecoderWorker.h"
#include "playback/engine/EngineTuning.h"
#include "playback/engine/RenderCore.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

namespace trovan {

using namespace engine;

AudioEngine::AudioEngine(Poster post, OutputFactory outputs)
    : post_(std::move(post)), outputs_(std::move(outputs)),
      equalizer_(std::make_unique<Equalizer>()), core_(std::make_unique<RenderCore>(*equalizer_)) {
    // In the body: alive_ is built after the initialisers run.
    worker_ = std::make_unique<DecoderWorker>(
        [post = post_, alive = alive_.watch(), self = this](std::string message) {
            post([alive, self, message = std::move(message)] {
                if (alive && self->onError) self->onError(message);
            });
        });
}

AudioEngine::~AudioEngine() {
    onTrackEnd = nullptr;
    core_->detach();
    for (auto* list : {&segment_, &incoming_})
        if (*list) (*list)->cancelled = true;
    for (auto& s : fading_)
        s->cancelled = true;
    worker_.reset();
    if (output_) {
        core_->setLive(false);
        output_->stop();
        output_.reset();
    }
}

void AudioEngine::bumpGeneration() {
    // Only equality matters: wrapping round after 2^63 stops cannot confuse anything.
    generation_ = generation_ == std::numeric_limits<int64_t>::max() ? 0 : generation_ + 1;
}

void AudioEngine::stopStep(double fadeSeconds) {
    bumpGeneration();
    catchUpJoins(); // a join already heard belongs to the new track
    if (isPlaying_) stoppedAt_ = currentTime();
    // What is being heard fades out while whatever comes next starts; what has not
    // been heard yet (or cannot be, with the output stopped) simply goes.
    const bool fade = fadeSeconds > 0 && isPlaying_ && output_ && output_->isRunning();
    auto retire = [&](std::shared_ptr<Segment>& s) {
        if (!s) return;
        if (fade && s->deviceBase.load() >= 0 && !s->faded.load()) {
            s->retired = true;
            s->quickFade = std::max<int64_t>(1, std::llround(fadeSeconds * core_->sampleRate()));
            fading_.push_back(std::move(s));
        } else {
            s->cancelled = true;
        }
        s.reset();
    };
    // An armed crossfade that has not begun gives its track back to be prepared again.
    if (incoming_ && segment_ && !segment_->crossfading.load() && incomingPrepared_)
        setPrepared(makePrepared(incomingPrepared_->path, incomingPrepared_->transition));
    incomingPrepared_.reset();
    retire(incoming_);
    retire(segment_);
    // Earlier fades go on (a skip's fade outlasts the load that follows it).
    for (auto& s : fading_)
        if (s->faded.load()) s->cancelled = true;
    std::erase_if(fading_, [](const auto& s) { return s->cancelled.load(); });
    // Two fades at once are plenty; keys pressed faster than that cut the oldest.
    while (fading_.size() > RenderCore::slotCount - 2) {
        fading_.front()->cancelled = true;
        fading_.erase(fading_.begin());
    }
    publishSegments();
    segmentOrigin_ = 0;
    appliedJoins_ = 0;
    // The dropped ring had already gone on into the prepared track: open it afresh.
    if (prepared_ && prepared_->claim.load() == Prepared::byDecoder)
        setPrepared(makePrepared(prepared_->path, prepared_->transition));
    isPlaying_ = false;
}

// Hands the render core and the decoder thread the segments as they stand now.
void AudioEngine::publishSegments() {
    RenderCore::Slots slots{segment_.get(), incoming_.get()};
    std::vector<std::shared_ptr<Segment>> all;
    for (auto* s : {&segment_, &incoming_})
        if (*s) all.push_back(*s);
    for (std::size_t i = 0; i < fading_.size(); ++i) {
        slots[2 + i] = fading_[i].get();
        all.push_back(fading_[i]);
    }
    core_->setSegments(slots);
    worker_->assign(std::move(all));
}

// A segment faded out: nobody needs to hear from it again.
void AudioEngine::fadedArrived(uint64_t id) {
    const auto before = fading_.size();
    std::erase_if(fading_, [id](const auto& s) { return s->id == id; });
    if (fading_.size() != before) publishSegments();
}

AudioFormatInfo AudioEngine::load(const std::string& path) {
    // The prepared track, when that is the one asked for, is already open.
    const bool usePrepared = prepared_ && prepared_->path == path &&
                             prepared_->status.load(std::memory_order_acquire) == Prepared::ready &&
                             prepared_->claimFor(Prepared::byOwner);
    LoadedFile file = usePrepared ? prepared_->file : openFile(path);

    stopStep();
    connect(file.format);
    setPrepared(nullptr);
    file_ = std::move(file);
    stoppedAt_ = 0;
    ++loadCount_;
    return file_->info;
}

void AudioEngine::loadInBackground(const std::string& path, Task alsoThere, LoadDone done) {
    stopStep(skipFadeSeconds);
    file_.reset();
    stoppedAt_ = 0;
    const int64_t request = ++loadCount_;
    auto p = makePrepared(path);
    p->alsoThere = std::move(alsoThere);
    p->countLength = true; // nothing plays meanwhile
    const auto alive = alive_.watch();
    p->onReady = [alive, self = this, request, done, path] {
        if (!alive || request != self->loadCount_) return;
        std::optional<AudioFormatInfo> info;
        try {
            info = self->load(path); // takes the prepared file
        } catch (const std::exception&) {
        }
        done(info);
    };
    p->onFailed = [alive, self = this, request, done] {
        if (!alive || request != self->loadCount_) return;
        self->setPrepared(nullptr);
        done(std::nullopt);
    };
    setPrepared(std::move(p));
}

std::shared_ptr<AudioEngine::Prepared> AudioEngine::makePrepared(const std::string& path,
                                                                 Transition transition) {
    auto p = std::make_shared<Prepared>();
    p->path = path;
    p->transition = transition;
    p->onReady = [alive = alive_.watch(), self = this] {
        if (alive) self->armCrossfade();
    };
    p->post = post_;
    p->onFailed = [alive = alive_.watch(), self = this, weak = std::weak_ptr<Prepared>(p)] {
        if (alive)
            if (auto prepared = weak.lock()) self->preparedFailed(prepared);
    };
    return p;
}

void AudioEngine::setPrepared(std::shared_ptr<Prepared> prepared) {
    prepared_ = std::move(prepared);
    worker_->prepare(prepared_);
}

void AudioEngine::prepareNext(std::optional<std::string> path, Task alsoThere,
                              Transition transition) {
    if (prepared_ && path && prepared_->path == *path &&
        prepared_->claim.load() != Prepared::byOwner &&
        prepared_->status.load() != Prepared::failed) {
        prepared_->transition = transition; // read by the owner only
        armCrossfade();
        return;
    }
    // The track already set to crossfade in stays when it is still the one wanted.
    if (incomingPrepared_ && path && incomingPrepared_->path == *path) return;
    catchUpJoins();
    if (incoming_ && segment_ && !segment_->crossfading.load()) {
        incoming_->cancelled = true;
        incoming_.reset();
        incomingPrepared_.reset();
        segment_->crossfadeAt = Segment::noFrame;
        segment_->crossfadeEnd = Segment::noFrame;
        publishSegments();
    }
    auto fresh = path ? makePrepared(*path, transition) : nullptr;
    if (fresh) fresh->alsoThere = std::move(alsoThere);
    auto old = std::exchange(prepared_, nullptr);
    setPrepared(
        std::move(fresh)); // first: the decoder thread looks again when it loses the old one
    // Taking the old one away from the decoder thread fails only when it is in the ring.
    const bool inRing =
        old && !old->claimFor(Prepared::byOwner) && old->claim.load() == Prepared::byDecoder;
    if (inRing && isPlaying_) {
        // The ring already holds the start of the track no longer wanted: decode
        // the rest of the current one again from where the listener is.
        const double at = currentTime();
        stopStep();
        stoppedAt_ = at;
        play();
    }
}

void AudioEngine::preparedFailed(const std::shared_ptr<Prepared>& prepared) {
    if (prepared == prepared_ && onNextFailed) {
        auto callback = onNextFailed;
        callback(prepared->path);
    }
}

void AudioEngine::announceJoin(const std::string& path) {
    post_([alive = alive_.watch(), self = this, path, loads = loadCount_] {
        if (alive && self->loadCount_ == loads && self->onTrackJoined) self->onTrackJoined(path);
    });
}

void AudioEngine::progressArrived(int64_t generation, uint64_t id) {
    if (generation == generation_ && segment_ && segment_->id == id) catchUpJoins(true);
}

// Owner thread: moves the current file on past every join the listener has heard,
// and takes the real length of a file once its end has been decoded. The owner
// hears of a join at once when this runs for a notice from the decoder thread, else
// (in the middle of one of its own calls) through the poster.
void AudioEngine::catchUpJoins(bool deliverNow) {
    if (!segment_ || !file_) return;
    const int64_t base = segment_->deviceBase.load(std::memory_order_acquire);
    const int64_t heard = output_ && base >= 0 ? output_->playedFrames() - base : -1;
    std::vector<std::string> joined;
    bool lengthLearnt = false;
    {
        std::lock_guard lock(segment_->mutex);
        auto& joins = segment_->joins;
        while (appliedJoins_ < joins.size() && heard >= joins[appliedJoins_].offset) {
            auto& j = joins[appliedJoins_++];
            file_ = j.next->file;
            segmentOrigin_ = j.offset;
            segmentStart_ = 0;
            if (prepared_ == j.next) prepared_.reset();
            joined.push_back(file_->path);
        }
        const int64_t realEnd =
            appliedJoins_ == 0 ? segment_->firstRealEnd : joins[appliedJoins_ - 1].realEnd;
        if (!file_->exactLength && realEnd > 0) {
            file_->frames = realEnd;
            file_->exactLength = true;
            lengthLearnt = true;
        }
    }
    if (!joined.empty() && !prepared_) worker_->prepare(nullptr);
    for (const auto& path : joined) {
        if (!deliverNow) {
            announceJoin(path);
        } else if (onTrackJoined) {
            auto callback = onTrackJoined; // the handler may replace it
            callback(path);
        }
    }
    if (lengthLearnt && joined.empty())
        post_([alive = alive_.watch(), self = this] {
            if (alive && self->onDurationChanged) self->onDurationChanged();
        });
}

// The loaded file ended with a prepared track that could not join the ring (another
// rate or channel count, or prepared too late): reopen the output for it and go on.
bool AudioEngine::adoptPrepared() {
    if (!prepared_ || prepared_->status.load(std::memory_order_acquire) != Prepared::ready ||
        !prepared_->claimFor(Prepared::byOwner))
        return false;
    auto p = std::move(prepared_);
    setPrepared(nullptr);
    file_ = p->file;
    stoppedAt_ = 0;
    announceJoin(file_->path);
    try {
        connect(file_->format);
    } catch (const std::exception&) {
        if (output_) output_->stop();
        return true;
    }
    play();
    return true;
}

void AudioEngine::play() {
    if (!file_ || isPlaying_) return;
    const double rate = file_->format.sampleRate;
    // The stop time is always within the file; should it ever not be, play from the
    // start rather than from a nonsensical frame.
    // A length of 0 is not known yet (a joined track whose end is still to be decoded):
    // its position is kept as it is.
    const bool known = file_->frames > 0;
    const double product = stoppedAt_ * rate;
    const bool valid = std::isfinite(product) && product >= 0;
    const auto startFrame = !valid ? int64_t{0}
                            : known && product >= static_cast<double>(file_->frames)
                                ? file_->frames
                                : static_cast<int64_t>(product);
    if (known && startFrame >= file_->frames) {
        finishTrack();
        return;
    }
    if (!output_) {
        stopStep();
        return;
    }
    segmentStart_ = startFrame;
    segmentOrigin_ = 0;
    appliedJoins_ = 0;
    segment_ = makeSegment(*file_, startFrame, gain_);
    publishSegments();
    armCrossfade();
    // A device that starts before the first block is decoded would play silence first.
    if (output_->realTime()) waitUntilBuffered(std::chrono::milliseconds(50));
    if (!output_->isRunning() && !output_->start()) {
        stopStep();
        return;
    }
    isPlaying_ = true;
}

std::shared_ptr<AudioEngine::Segment> AudioEngine::makeSegment(const LoadedFile& file,
                                                               int64_t startFrame, float gain) {
    const double rate = file.format.sampleRate;
    const auto ch = static_cast<std::size_t>(file.format.channels);
    const auto ringFrames = std::max(static_cast<std::size_t>(ringSeconds * rate), minRingFrames);
    auto seg = std::make_shared<Segment>(ringFrames * ch);
    seg->id = ++segmentCount_;
    seg->startFrame = startFrame;
    // A guessed length must not cut the end off: then the data decides where it ends.
    seg->endFrame = file.exactLength ? file.frames : std::numeric_limits<int64_t>::max();
    seg->exactLength = file.exactLength;
    seg->stamp = file.stamp;
    seg->format = file.format;
    seg->channels = file.format.channels;
    seg->decoder = file.decoder;
    seg->output = output_;
    seg->post = post_;
    seg->gain = gain;
    const auto alive = alive_.watch();
    const uint64_t id = seg->id;
    seg->onFinished = [alive, self = this, gen = generation_, id] {
        if (alive) self->completionArrived(gen, id);
    };
    seg->onProgress = [alive, self = this, gen = generation_, id] {
        if (alive) self->progressArrived(gen, id);
    };
    seg->onCrossfade = [alive, self = this, id] {
        if (alive) self->crossfadeArrived(id);
    };
    seg->onFaded = [alive, self = this, id] {
        if (alive) self->fadedArrived(id);
    };
    return seg;
}

// With a prepared track that crossfades in, its segment is made now: the decoder
// fills it ahead, and the render core starts it when the playing one starts to fade
// out, `crossfadeSeconds` before its end.
void AudioEngine::armCrossfade() {
    if (!prepared_ || incoming_ || !segment_ || !file_ || !file_->exactLength || !isPlaying_ ||
        prepared_->transition.crossfadeSeconds <= 0 ||
        prepared_->status.load(std::memory_order_acquire) != Prepared::ready ||
        prepared_->file.format != file_->format)
        return;
    {
        std::lock_guard lock(segment_->mutex);
        if (appliedJoins_ < segment_->joins.size()) return; // a join still to be heard
    }
    if (!prepared_->claimFor(Prepared::byOwner)) return; // already in the ring: gapless
    auto p = std::move(prepared_);
    setPrepared(nullptr);
    const double rate = file_->format.sampleRate;
    const int64_t end = segmentOrigin_ + file_->frames - segmentStart_;
    const auto length = std::llround(p->transition.crossfadeSeconds * rate);
    incoming_ = makeSegment(p->file, 0, p->transition.gain);
    incoming_->waitFor = segment_.get();
    segment_->crossfadeEnd = end;
    segment_->crossfadeAt = std::max<int64_t>(0, end - length);
    incomingPrepared_ = std::move(p);
    publishSegments();
}

// The playing segment began to fade out: the one crossfading in is the track now.
void AudioEngine::crossfadeArrived(uint64_t id) {
    if (!segment_ || segment_->id != id || !incoming_ || !incomingPrepared_) return;
    catchUpJoins(true);
    fading_.push_back(std::move(segment_));
    segment_ = std::move(incoming_);
    segment_->waitFor = nullptr; // safe: the core has started it already
    gain_ = segment_->gain.load();
    file_ = incomingPrepared_->file;
    incomingPrepared_.reset();
    segmentStart_ = 0;
    segmentOrigin_ = 0;
    appliedJoins_ = 0;
    stoppedAt_ = 0;
    publishSegments();
    announceJoin(file_->path);
}

void AudioEngine::setGain(float gain) {
    if (!std::isfinite(gain) || gain < 0) gain = 1.0f;
    gain_ = gain;
    if (segment_) segment_->gain = gain;
}

void AudioEngine::dropFading() {
    if (fading_.empty()) return;
    for (auto& s : fading_)
        s->cancelled = true;
    fading_.clear();
    publishSegments();
}

void AudioEngine::completionArrived(int64_t generation, uint64_t id) {
    if (generation == generation_ && segment_ && segment_->id == id && isPlaying_) finishTrack();
}

void AudioEngine::finishTrack() {
    catchUpJoins(true); // the owner hears of the last join before the end
    stopStep();
    stoppedAt_ = file_ ? duration() : 0;
    if (adoptPrepared()) return;
    // Nothing more to play: let the device rest until the next play.
    if (output_) output_->stop();
    dropFading();
    if (onTrackEnd) {
        auto callback = onTrackEnd; // the handler may replace onTrackEnd
        callback();
    }
}

void AudioEngine::pause() {
    if (!isPlaying_) return;
    fadeOut();
    stoppedAt_ = currentTime();
    stopStep();
    if (output_) output_->discard();
    dropFading();
}

void AudioEngine::seek(double seconds) {
    if (!file_) return;
    const bool wasPlaying = isPlaying_;
    // What the device still holds of the old position plays out and ends in a short
    // fade, with the new position right behind it.
    stopStep(seekFadeSeconds);
    if (std::isnan(seconds)) seconds = 0;
    stoppedAt_ = std::max(seconds, 0.0);
    if (file_->frames > 0) stoppedAt_ = std::min(stoppedAt_, std::max(duration() - 0.05, 0.0));
    if (wasPlaying) play();
}

void AudioEngine::unload() {
    stopStep();
    setPrepared(nullptr);
    ++loadCount_;
    file_.reset();
    stoppedAt_ = 0;
}

double AudioEngine::duration() const {
    if (!file_) return 0;
    return static_cast<double>(file_->frames) / file_->format.sampleRate;
}

std::optional<AudioFormatInfo> AudioEngine::formatInfo() const {
    if (!file_) return std::nullopt;
    return file_->info;
}

double AudioEngine::currentTime() const {
    if (!file_ || !isPlaying_ || !segment_ || !output_) return stoppedAt_;
    int64_t sampleTime = 0;
    const int64_t base = segment_->deviceBase.load(std::memory_order_acquire);
    if (base >= 0) {
        const int64_t played = output_->playedFrames();
        const int64_t consumed = segment_->consumed.load(std::memory_order_acquire);
        sampleTime = std::clamp<int64_t>(played - base, 0, consumed);
    }
    const int64_t inFile = segmentStart_ + std::max<int64_t>(sampleTime - segmentOrigin_, 0);
    const double t = static_cast<double>(inFile) / file_->format.sampleRate;
    return file_->frames > 0 ? std::min(t, duration()) : t;
}

bool AudioEngine::waitUntilBuffered(std::chrono::milliseconds timeout) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto seg = segment_;
        if (!seg) return true;
        const auto ch = static_cast<std::size_t>(seg->channels);
        const std::size_t enough =
            std::min<std::size_t>(2 * minWriteFrames, seg->ring.capacity() / ch - minWriteFrames);
        bool joinUnannounced = false;
        if (output_ && seg->deviceBase.load() >= 0) {
            const int64_t heard = output_->playedFrames() - seg->deviceBase.load();
            std::lock_guard lock(seg->mutex);
            for (const auto& j : seg->joins)
                joinUnannounced = joinUnannounced || (!j.posted && heard >= j.offset);
        }
        if (!joinUnannounced && (seg->eof.load() || seg->ring.readable() / ch >= enough))
            return true;
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

bool AudioEngine::waitUntilPrepared(std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (prepared_ && prepared_->status.load() == Prepared::pending) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

} // namespace trovan
