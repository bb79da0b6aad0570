// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/cubeb/CubebOutput.h"

#include <cubeb/cubeb.h>

#include <algorithm>

namespace trovan {

std::shared_ptr<CubebContext> CubebContext::create(const char* name) {
    cubeb* ctx = nullptr;
    if (cubeb_init(&ctx, name, nullptr) != CUBEB_OK || !ctx) return nullptr;
    return std::shared_ptr<CubebContext>(new CubebContext(ctx));
}

CubebContext::~CubebContext() {
    cubeb_destroy(ctx_);
}

std::string CubebContext::backend() const {
    const char* id = cubeb_get_backend_id(ctx_);
    return id ? id : "";
}

struct CubebCallbacks {
    static long data(cubeb_stream*, void* user, const void*, void* output, long frames) {
        auto* self = static_cast<CubebOutput*>(user);
        if (frames <= 0) return 0;
        self->renderer_.render(static_cast<float*>(output), static_cast<std::size_t>(frames));
        self->rendered_.fetch_add(frames, std::memory_order_release);
        return frames;
    }

    static void state(cubeb_stream*, void* user, cubeb_state state) {
        auto* self = static_cast<CubebOutput*>(user);
        if (state == CUBEB_STATE_ERROR && !self->failed_.exchange(true)) {
            if (self->events_.failed) self->events_.failed();
        }
    }

    static void deviceChanged(void* user) {
        auto* self = static_cast<CubebOutput*>(user);
        if (self->events_.deviceChanged) self->events_.deviceChanged();
    }
};

void CubebOutput::StreamDestroyer::operator()(cubeb_stream* s) const {
    cubeb_stream_destroy(s);
}

CubebOutput::CubebOutput(std::shared_ptr<CubebContext> context, const OutputFormat& format,
                         AudioRenderer& renderer, OutputEvents events)
    : context_(std::move(context)), format_(format), renderer_(renderer),
      events_(std::move(events)) {}

std::unique_ptr<CubebOutput> CubebOutput::open(std::shared_ptr<CubebContext> context,
                                               const OutputFormat& format, AudioRenderer& renderer,
                                               OutputEvents events) {
    if (!context || format.sampleRate <= 0 || format.channels < 1 || format.channels > 2)
        return nullptr;
    std::unique_ptr<CubebOutput> out(
        new CubebOutput(std::move(context), format, renderer, std::move(events)));
    if (!out->connect()) return nullptr;
    return out;
}

bool CubebOutput::connect() {
    cubeb_stream_params params{};
    params.format = CUBEB_SAMPLE_FLOAT32NE;
    params.rate = static_cast<uint32_t>(format_.sampleRate);
    params.channels = static_cast<uint32_t>(format_.channels);
    params.layout = format_.channels == 1 ? CUBEB_LAYOUT_MONO : CUBEB_LAYOUT_STEREO;
    params.prefs = CUBEB_STREAM_PREF_NONE;

    if (latency_ == 0) {
        uint32_t minLatency = 0;
        if (cubeb_get_min_latency(context_->get(), &params, &minLatency) != CUBEB_OK)
            minLatency = 256;
        // About 50 ms: long enough to ride out a busy machine and to keep wake-ups (and
        // the CPU they cost) down; seeks do not wait for it, they drop it (discard).
        // With about 10 ms a seek could fade out inside the stream instead, without the
        // cut a discard makes, but a machine busy with disk writes then drops out ten
        // times as often.
        latency_ = std::max(minLatency, static_cast<uint32_t>(format_.sampleRate / 20));
    }
    cubeb_stream* raw = nullptr;
    if (cubeb_stream_init(context_->get(), &raw, "Trovan", nullptr, nullptr, nullptr, &params,
                          latency_, &CubebCallbacks::data, &CubebCallbacks::state,
                          this) != CUBEB_OK ||
        !raw)
        return false;
    cubeb_stream_register_device_changed_callback(raw, &CubebCallbacks::deviceChanged);
    std::lock_guard lock(streamMutex_);
    stream_.reset(raw);
    streamBase_ = rendered_.load(std::memory_order_acquire);
    lastPosition_.store(streamBase_);
    return true;
}

CubebOutput::~CubebOutput() {
    if (stream_) {
        cubeb_stream_stop(stream_.get());
        stream_.reset();
    }
}

bool CubebOutput::start() {
    if (running_.load()) return true;
    if (failed_.load() || !stream_ || cubeb_stream_start(stream_.get()) != CUBEB_OK) return false;
    running_ = true;
    return true;
}

void CubebOutput::stop() {
    if (!running_.exchange(false)) return;
    cubeb_stream_stop(stream_.get());
}

void CubebOutput::discard() {
    stop();
    if (failed_.load() || !stream_) return;
    {
        // Destroying the stream drops the server's buffer; the callback is not called
        // again once the destroy returns.
        std::lock_guard lock(streamMutex_);
        stream_.reset();
    }
    if (!connect() && !failed_.exchange(true) && events_.failed) events_.failed();
}

int64_t CubebOutput::playedFrames() const {
    std::lock_guard lock(streamMutex_);
    uint64_t pos = 0;
    if (failed_.load() || !stream_ || cubeb_stream_get_position(stream_.get(), &pos) != CUBEB_OK)
        return lastPosition_.load();
    // The position can run slightly past what we handed over: clamp it.
    int64_t played = std::min(streamBase_ + static_cast<int64_t>(pos),
                              rendered_.load(std::memory_order_acquire));
    played = std::max(played, lastPosition_.load());
    lastPosition_.store(played);
    return played;
}

} // namespace trovan

// The sound-server module's one exported symbol: a factory of cubeb streams. Used from
// its owner's thread only. A context whose server went away cannot open streams any
// more, so after a failure the next connection starts over.
extern "C" __attribute__((visibility("default"))) trovan::OutputFactory* trovan_sound_server() {
    using namespace trovan;
    auto context = std::make_shared<std::shared_ptr<CubebContext>>();
    return new OutputFactory([context](const OutputFormat& format, AudioRenderer& renderer,
                                       OutputEvents events) -> std::unique_ptr<AudioOutput> {
        if (!*context) *context = CubebContext::create("Trovan");
        if (!*context) return nullptr;
        if (auto out = CubebOutput::open(*context, format, renderer, events)) return out;
        context->reset();
        return nullptr;
    });
}
