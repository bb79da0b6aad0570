// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "playback/AudioOutput.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

typedef struct cubeb cubeb;
typedef struct cubeb_stream cubeb_stream;

namespace trovan {

// One cubeb library context, shared by the streams opened from it.
class CubebContext {
public:
    // Null when cubeb cannot be initialised at all.
    static std::shared_ptr<CubebContext> create(const char* name);
    ~CubebContext();
    cubeb* get() const { return ctx_; }
    std::string backend() const;

private:
    explicit CubebContext(cubeb* ctx) : ctx_(ctx) {}
    cubeb* ctx_;
};

// A float output stream on the system's default device.
class CubebOutput : public AudioOutput {
public:
    // Null when no stream can be opened (no sound server, no device).
    static std::unique_ptr<CubebOutput> open(std::shared_ptr<CubebContext> context,
                                             const OutputFormat& format, AudioRenderer& renderer,
                                             OutputEvents events);
    ~CubebOutput() override;

    bool start() override;
    void stop() override;
    bool isRunning() const override { return running_.load(); }
    // The sound server keeps what it was given after a stop (and would play it on the
    // next start): the stream is replaced by a fresh one instead.
    void discard() override;
    int64_t playedFrames() const override;
    const char* kind() const override { return "cubeb"; }

private:
    CubebOutput(std::shared_ptr<CubebContext> context, const OutputFormat& format,
                AudioRenderer& renderer, OutputEvents events);
    friend struct CubebCallbacks;

    struct StreamDestroyer {
        void operator()(cubeb_stream* s) const;
    };
    bool connect();

    std::shared_ptr<CubebContext> context_;
    OutputFormat format_;
    AudioRenderer& renderer_;
    OutputEvents events_;
    uint32_t latency_ = 0;
    // Guards `stream_` against being replaced while another thread asks its position.
    mutable std::mutex streamMutex_;
    std::unique_ptr<cubeb_stream, StreamDestroyer> stream_;
    int64_t streamBase_ = 0; // frames rendered before the current stream was created
    std::atomic<bool> running_{false};
    std::atomic<bool> failed_{false};
    std::atomic<int64_t> rendered_{0};
    mutable std::atomic<int64_t> lastPosition_{0};
};

} // namespace trovan
