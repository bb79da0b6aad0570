// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "config/FileStamp.h"
#include "config/LifeToken.h"
#include "playback/AudioFormatInfo.h"
#include "playback/AudioOutput.h"
#include "playback/Equalizer.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace trovan {

class AudioDecoder;

// How a prepared track follows the loaded one.
struct TrackTransition {
    double crossfadeSeconds = 0; // 0: gapless
    float gain = 1.0f;           // its loudness gain, linear
};

class AudioEngineError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Plays one audio file at a time: a decoder thread reads ahead of the output into
// a lock-free ring; the output's callback drains it through the equalizer and the
// volume. All public operations belong to the owner's thread. The only things that
// come back from other threads (end of a segment, device changes) are handed to the
// `Poster`, which must run them on the owner's thread; a generation counter makes
// an end-of-segment notice that arrives after a stop, pause, seek or load stale.
//
// Gapless: the owner names the track that follows (`prepareNext`); the decoder
// thread opens it ahead of time and, when the current file ends, goes on decoding
// it into the same ring. The engine switches its current file when the output has
// played the first frame of the new one and tells the owner (`onTrackJoined`). A
// next track in another format is started by reopening the output instead.
class AudioEngine {
public:
    using Task = std::function<void()>;
    // Thread-safe; queues the task to run later on the owner's thread.
    using Poster = std::function<void(Task)>;

    explicit AudioEngine(Poster post, OutputFactory outputs = systemOutputFactory());
    ~AudioEngine();
    AudioEngine(const AudioEngine&) = delete;
    AudioEngine& operator=(const AudioEngine&) = delete;

    Equalizer& equalizer() { return *equalizer_; }
    // Called once each time a track plays to its end by itself and nothing prepared
    // follows it.
    std::function<void()> onTrackEnd;
    // Playback moved on to the prepared track, which is now the loaded file.
    std::function<void(const std::string& path)> onTrackJoined;
    // The prepared track could not be opened (once per prepareNext).
    std::function<void(const std::string& path)> onNextFailed;
    // The real length of the loaded file became known (its length was a guess).
    std::function<void()> onDurationChanged;
    // Something went wrong on the decoder thread; a message for the user.
    std::function<void(const std::string& message)> onError;
    // A message for the user when the real output is lost ("Sin salida de audio: …",
    // `problem` set) and when it comes back; said once per loss, on the owner's thread.
    std::function<void(const std::string& message, bool problem)> onOutputNotice;

    // Opens the file and connects the output for its rate and channel count; does
    // not start playback. Throws (AudioDecodeError, AudioEngineError) leaving the
    // engine as it was.
    AudioFormatInfo load(const std::string& path);
    // The same without blocking: the current track stops and is unloaded at once,
    // the file is opened on the decoder thread (then `alsoThere`, if given, runs
    // there too), and `done` runs on the owner's thread with the format, or with
    // nothing when the file cannot be played. A later load or unload makes a pending
    // one stale: its `done` is never called.
    using LoadDone = std::function<void(std::optional<AudioFormatInfo>)>;
    // What is heard of the track being left fades out over this long when a skip (a
    // background load) or a seek replaces it.
    static constexpr double skipFadeSeconds = 0.03;
    static constexpr double seekFadeSeconds = 0.005;
    void loadInBackground(const std::string& path, Task alsoThere, LoadDone done);
    void play();
    void pause();
    void seek(double seconds);
    void unload();
    using Transition = TrackTransition;
    // The track to play after the loaded one ends (none: stop there). Opened on the
    // decoder thread, which then runs `alsoThere` if given; asking for the same path
    // again keeps what is already open. With a crossfade (and the same format) it
    // starts that long before the loaded one ends, the two overlapping with
    // equal-power curves; the join is announced when the overlap begins.
    void prepareNext(std::optional<std::string> path, Task alsoThere = {},
                     Transition transition = {});
    // The output device changed (or its stream died): rebuild it and carry on
    // from the same position.
    void recoverFromConfigurationChange();

    double currentTime() const;
    bool isPlaying() const { return isPlaying_; }
    bool hasFile() const { return file_.has_value(); }
    double duration() const;
    std::string currentPath() const { return file_ ? file_->path : std::string(); }
    std::optional<AudioFormatInfo> formatInfo() const;

    // The loudness gain of the loaded track (linear), reached smoothly.
    void setGain(float gain);
    float gain() const { return gain_; }

    // Output gain 0…1, applied with a short ramp.
    void setVolume(float volume);
    float volume() const;

    // "cubeb", "null", or "" before the first load.
    std::string outputKind() const;
    // Blocks until the decoder is at least two thousand frames ahead of the output
    // or has reached the end of the current segment, and has announced every join
    // already played (tests and benchmarks that drive a virtual clock).
    bool waitUntilBuffered(std::chrono::milliseconds timeout) const;
    // Blocks until the decoder thread has tried to open the prepared track, if any.
    bool waitUntilPrepared(std::chrono::milliseconds timeout) const;

    struct Segment;
    struct Prepared;
    class RenderCore;
    class DecoderWorker;

private:
    // What tells a rewritten file (a tag write, a replacement) from the one opened: its
    // stamp, and which file it is.
    struct FileCheck {
        FileStamp stamp;
        uint64_t device = 0, inode = 0;
        bool known = false;
        bool operator==(const FileCheck&) const = default;
        bool sameFileAs(const FileCheck& o) const { return device == o.device && inode == o.inode; }
        static FileCheck of(const std::string& path);
        bool changedTo(const FileCheck& now) const { return known && now.known && !(now == *this); }
    };
    struct LoadedFile {
        std::shared_ptr<AudioDecoder> decoder;
        std::string path;
        int64_t frames = 0;
        bool exactLength = true;
        OutputFormat format;
        AudioFormatInfo info;
        FileCheck stamp;
    };
    // Without `countUnknownLength` a file whose container gives no length is not
    // decoded through to count it: its length is learnt when its end is decoded.
    static LoadedFile openFile(const std::string& path, bool countUnknownLength = true);

    // With `fadeSeconds`, what is being heard fades out over that long instead of stopping.
    void stopStep(double fadeSeconds = 0);
    void publishSegments();
    void dropFading();
    std::shared_ptr<Segment> makeSegment(const LoadedFile& file, int64_t startFrame, float gain);
    void armCrossfade();
    void crossfadeArrived(uint64_t id);
    void fadedArrived(uint64_t id);
    void finishTrack();
    bool adoptPrepared();
    void catchUpJoins(bool deliverNow = false);
    void progressArrived(int64_t generation, uint64_t id);
    void preparedFailed(const std::shared_ptr<Prepared>& prepared);
    void setPrepared(std::shared_ptr<Prepared> prepared);
    std::shared_ptr<Prepared> makePrepared(const std::string& path, Transition transition = {});
    void announceJoin(const std::string& path);
    void fadeOut();
    void connect(const OutputFormat& format);
    void completionArrived(int64_t generation, uint64_t id);
    void bumpGeneration();
    OutputEvents outputEvents();
    void outputAvailability(bool available, const std::string& reason);

    Poster post_;
    OutputFactory outputs_;
    std::unique_ptr<Equalizer> equalizer_;
    std::unique_ptr<RenderCore> core_;
    std::unique_ptr<DecoderWorker> worker_;
    std::shared_ptr<AudioOutput> output_;
    std::shared_ptr<Segment> segment_;  // the one heard
    std::shared_ptr<Segment> incoming_; // set to crossfade in after it
    std::shared_ptr<Prepared> incomingPrepared_;
    std::vector<std::shared_ptr<Segment>> fading_; // fading out after a seek, skip or crossfade
    uint64_t segmentCount_ = 0;
    float gain_ = 1.0f;
    std::optional<LoadedFile> file_;
    std::optional<OutputFormat> connectedFormat_;
    std::shared_ptr<Prepared> prepared_;
    int64_t segmentStart_ = 0;  // file frame at segmentOrigin_
    int64_t segmentOrigin_ = 0; // segment frame where the current file's part begins
    std::size_t appliedJoins_ = 0;
    int64_t loadCount_ = 0; // a join notice or background load from before the latest load is stale
    double stoppedAt_ = 0;
    int64_t generation_ = 0;
    bool isPlaying_ = false;
    bool outputMissing_ = false;
    LifeToken alive_;
};

} // namespace trovan
