// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "config/LifeToken.h"
#include "library/Track.h"
#include "playback/AudioEngine.h"
#include "playback/PlaybackQueue.h"
#include "playback/PlaybackState.h"

#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unordered_map>
#include <vector>

namespace trovan {

// Turns a list of paths into continuous playback: keeps the queue, loads each
// track into the engine and names the one after it for a gapless join, skips files
// that will not play, follows each join and end of track, and publishes a
// PlaybackState after every change. Owner's thread only.
class PlaybackController {
public:
    explicit PlaybackController(std::unique_ptr<AudioEngine> engine);
    ~PlaybackController();
    PlaybackController(const PlaybackController&) = delete;
    PlaybackController& operator=(const PlaybackController&) = delete;

    // For tests; the program goes through the calls below.
    AudioEngine& engine() { return *engine_; }
    // Seconds into the current track.
    double position() const;
    void setEqualizer(const std::vector<float>& gains, bool enabled);
    const PlaybackState& state() const { return state_; }
    const PlaybackQueue& queue() const { return queue_; }
    std::mt19937_64& rng() { return rng_; }

    // Library look-up of a path; when it has nothing the file's own tags are read.
    std::function<std::optional<Track>(const std::string&)> lookup;
    std::function<void()> onChange;
    // The position jumped: a seek, a restart, a resume from the end.
    std::function<void()> onSeek;
    std::function<void(const std::string&)> onError;

    // Replaces the queue and starts paths[startAt] (nothing when out of range). The
    // file opens in the background: until then the state shows the chosen track,
    // not playing, and `loading()` is true.
    void play(std::vector<std::string> paths, int startAt);
    bool loading() const { return loading_; }
    void resume();
    void pause();
    // Pause when playing, resume otherwise.
    void togglePlay();
    void seek(double seconds);
    void next();
    // Restarts the track after 3 s of play; otherwise goes to the previous one.
    void previous();
    void refreshCurrentTrack();
    // Files that moved on disk (old path to new): the queue and the playing track follow.
    void followMoves(const std::unordered_map<std::string, std::string>& moves);
    void trackEnded();

    // A batch of tag writes is about to rewrite `paths`. A file replaced by a rename
    // leaves the one the decoder has open intact, so playback goes on. A file with
    // several names is rewritten in place under the decoder: the playing one is let go
    // now and taken up again where it was by endFileWrite. Meanwhile the controls act on
    // what will resume (pause, seek), and starting another track ends the wait.
    void beginFileWrite(const std::vector<std::string>& paths);
    void endFileWrite();
    bool waitingForWrite() const { return held_.has_value(); }

    // --- The queue, edited by place in play order. Each edit names the new following
    // track to the engine, so the join stays gapless, and calls onQueueChange.
    std::function<void()> onQueueChange;
    // A track's length in milliseconds as the library knows it (0: unknown), for the
    // queue's durations; looked up once per entry.
    std::function<int64_t(const std::string&)> durationOf;
    // The library changed: every entry's length is looked up again.
    void refreshDurations();
    // Adds `paths` at the end, or right after the current track when `next`.
    void enqueue(const std::vector<std::string>& paths, bool next);
    // Plays the entry at `at`.
    void playAt(std::size_t at);
    // The current track cannot be removed (it plays on): false, as for a bad place.
    bool removeAt(std::size_t at);
    bool moveAt(std::size_t at, int delta);
    std::size_t clearUpcoming();
    // A queue kept from an earlier run: the current entry is shown paused at `seconds`
    // and opened when played (or sought, which only moves where it will start).
    void restore(PlaybackQueue saved, double seconds);

    void setShuffle(bool on);
    void setRepeatMode(RepeatMode mode);
    // Output gain: the stored volume clamped to 0…1, or silence while muted.
    void setVolume(float volume, bool muted);
    // Loudness: which ReplayGain gain is applied, and the preamp added to it (-15…+15 dB).
    void setLoudness(ReplayGainMode mode, double preampDb);
    // Seconds over which automatic joins overlap (0: gapless). Tracks of one album that
    // follow each other in order always join without a gap.
    void setCrossfade(double seconds);

private:
    void start(std::optional<std::string> path, std::size_t attemptsLeft);
    void started(const std::string& path, std::optional<AudioFormatInfo> info,
                 std::optional<Track> track, std::size_t attemptsLeft);
    void stopWithNothing();
    void changed();
    Track trackFor(const std::string& path) const;
    void prepareFollowing();
    void prepare();
    void joined(const std::string& path);
    void nextFailed(const std::string& path);
    void queueChanged();
    void lookUpDurations();
    // Whether the track at `at` plays as part of its album, in order: not shuffled, and
    // the track before or after it is the one before or after it on the album.
    bool albumInOrder(std::optional<int> at) const;
    GainChoice gainAt(const Track& track, std::optional<int> at) const;
    void applyGain();

    // The track let go for a write: where it was, and whether it should play.
    struct Held {
        std::string path;
        double position = 0;
        bool playing = false;
    };

    std::unique_ptr<AudioEngine> engine_;
    std::optional<Held> held_;
    std::optional<double> startAt_; // where the loading track begins
    // A kept track shown paused without being opened: where it will start.
    std::optional<double> parked_;
    std::mt19937_64 rng_;
    PlaybackQueue queue_;
    PlaybackState state_;
    std::optional<int> preparedAt_; // queue position of the track named to the engine
    std::size_t failedAhead_ = 0;   // prepared tracks that failed since the last one played
    std::shared_ptr<std::optional<Track>> preparedTrack_; // its tags, when the library lacks them
    ReplayGainMode gainMode_ = ReplayGainMode::off;
    double preampDb_ = 0;
    double crossfadeSeconds_ = 0;
    bool loading_ = false;
    bool playWhenLoaded_ = true;
    uint64_t startCount_ = 0; // a load finishing after another start is stale
    LifeToken alive_;
};

} // namespace trovan
