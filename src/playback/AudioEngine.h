#pragma once

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

namespace trovan {

class AudioDecoder;

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
    // Called once each time a track plays to its end by itself.
    std::function<void()> onTrackEnd;
    // A message for the user when the real output is lost ("Sin salida de audio: …",
    // `problem` set) and when it comes back; said once per loss, on the owner's thread.
    std::function<void(const std::string& message, bool problem)> onOutputNotice;

    // Opens the file and connects the output for its rate and channel count; does
    // not start playback. Throws (AudioDecodeError, AudioEngineError) leaving the
    // engine as it was.
    AudioFormatInfo load(const std::string& path);
    void play();
    void pause();
    void seek(double seconds);
    void unload();
    // The output device changed (or its stream died): rebuild it and carry on
    // from the same position.
    void recoverFromConfigurationChange();

    double currentTime() const;
    bool isPlaying() const { return isPlaying_; }
    bool hasFile() const { return file_.has_value(); }
    double duration() const;

    // Output gain 0…1, applied with a short ramp.
    void setVolume(float volume);
    float volume() const;

    // "cubeb", "null", or "" before the first load.
    std::string outputKind() const;
    // Blocks until the decoder is at least two thousand frames ahead of the output
    // or has reached the end of the current segment (tests and benchmarks that
    // drive a virtual clock).
    bool waitUntilBuffered(std::chrono::milliseconds timeout) const;

    struct Segment;
    class RenderCore;
    class DecoderWorker;

private:
    struct LoadedFile {
        std::shared_ptr<AudioDecoder> decoder;
        std::string path;
        int64_t frames = 0;
        bool exactLength = true;
        OutputFormat format;
        AudioFormatInfo info;
    };

    void stopStep();
    void finishTrack();
    void fadeOut();
    void connect(const OutputFormat& format);
    void completionArrived(int64_t generation);
    void bumpGeneration();
    OutputEvents outputEvents();
    void outputAvailability(bool available, const std::string& reason);

    Poster post_;
    OutputFactory outputs_;
    std::unique_ptr<Equalizer> equalizer_;
    std::unique_ptr<RenderCore> core_;
    std::unique_ptr<DecoderWorker> worker_;
    std::shared_ptr<AudioOutput> output_;
    std::shared_ptr<Segment> segment_;
    std::optional<LoadedFile> file_;
    std::optional<OutputFormat> connectedFormat_;
    int64_t segmentStart_ = 0;
    double stoppedAt_ = 0;
    int64_t generation_ = 0;
    bool isPlaying_ = false;
    bool outputMissing_ = false;
    std::shared_ptr<char> alive_ = std::make_shared<char>(0);
};

} // namespace trovan
