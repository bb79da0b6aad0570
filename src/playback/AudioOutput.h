// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace trovan {

struct OutputFormat {
    int sampleRate = 0;
    int channels = 0; // 1 or 2, interleaved float

    bool operator==(const OutputFormat&) const = default;
};

// Fills device buffers. Called on the output's real-time thread: implementations
// must not lock, allocate, log or do I/O.
class AudioRenderer {
public:
    virtual ~AudioRenderer() = default;
    virtual void render(float* out, std::size_t frames) noexcept = 0;
};

// Notifications from the device side. They may arrive on any thread (never the
// render callback itself) and must only hand work over to the owner's loop.
struct OutputEvents {
    std::function<void()> deviceChanged; // the default device or its format changed
    std::function<void()> failed;        // the stream died (e.g. the sound server went away)
    // The real device could not be opened and a null output stands in for it (false, with
    // the reason in Spanish), or it could again (true, empty reason).
    std::function<void(bool available, const std::string& reason)> availability;
};

// A stream to a sound device, or to nowhere.
class AudioOutput {
public:
    virtual ~AudioOutput() = default;

    virtual bool start() = 0;
    // After it returns the renderer is not called again until the next start.
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;
    // Stops like `stop` and drops what was handed to the device but not heard yet, so
    // that the next start begins with fresh audio; the dropped frames count as played.
    virtual void discard() { stop(); }
    // False for an output that only advances when told to (tests).
    virtual bool realTime() const { return true; }
    // Frames that have actually been heard since the stream was created; never
    // more than the frames rendered. Safe from any thread.
    virtual int64_t playedFrames() const = 0;
    virtual const char* kind() const = 0;
};

using OutputFactory =
    std::function<std::unique_ptr<AudioOutput>(const OutputFormat&, AudioRenderer&, OutputEvents)>;

// The sound server through cubeb when it can be opened, else a real-time null output
// that keeps trying to reach the server (with backoff while it plays, and at every
// start) and moves the stream to it as soon as it answers.
OutputFactory systemOutputFactory();
// Loads the cubeb module now (it is otherwise loaded by the first stream opened), so
// that a background thread can pay for it before anyone waits.
void preloadSoundServer();

} // namespace trovan
