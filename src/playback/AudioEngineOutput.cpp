// SPDX-License-Identifier: GPL-3.0-or-later
// The output lifecycle: opening the output for a format, reopening it when the device
// changes or the sound server comes and goes, the pause's fade, and the volume.
//
// Threads: all of this runs on the owner's thread. The output's own events (device
// changed, stream failed, availability) arrive on other threads and only post work
// back here, guarded by the engine's alive token. Before an output is stopped or
// replaced the render core is switched off (`setLive(false)`), which waits until the
// callback is out of `render`.

#include "playback/AudioEngine.h"
#include "playback/engine/RenderCore.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>
#include <thread>

namespace trovan {

void AudioEngine::connect(const OutputFormat& format) {
    if (connectedFormat_ && connectedFormat_->sampleRate == format.sampleRate &&
        connectedFormat_->channels == format.channels && output_)
        return;
    if (output_) {
        core_->setLive(false);
        output_->stop();
        output_.reset();
    }
    dropFading(); // they were for the old output
    connectedFormat_.reset();
    core_->reset(format.channels, format.sampleRate);
    equalizer_->prepare(format.sampleRate, format.channels);
    auto out = outputs_ ? outputs_(format, *core_, outputEvents()) : nullptr;
    if (!out) throw AudioEngineError("no audio output");
    output_ = std::move(out);
    core_->setLive(true);
    connectedFormat_ = format;
}

OutputEvents AudioEngine::outputEvents() {
    auto recover = [post = post_, alive = alive_.watch(), self = this] {
        post([alive, self] {
            if (alive) self->recoverFromConfigurationChange();
        });
    };
    auto availability = [post = post_, alive = alive_.watch(),
                         self = this](bool available, const std::string& reason) {
        post([alive, self, available, reason] {
            if (alive) self->outputAvailability(available, reason);
        });
    };
    return OutputEvents{recover, recover, availability};
}

void AudioEngine::outputAvailability(bool available, const std::string& reason) {
    if (available == !outputMissing_) return;
    outputMissing_ = !available;
    if (onOutputNotice)
        onOutputNotice(available ? "Salida de audio recuperada" : "Sin salida de audio: " + reason,
                       !available);
}

void AudioEngine::fadeOut() {
    if (!output_ || !output_->realTime() || !output_->isRunning()) return;
    // What the device holds plays out, then the fade: the pause lands where it ends, and
    // nothing from before it is heard again on resume. A busy sound server's position runs
    // a little ahead of what it has played: 10 ms of the silence after the fade make sure
    // the fade is not cut short.
    core_->requestFadeOut();
    const int64_t margin = connectedFormat_ ? connectedFormat_->sampleRate / 100 : 0;
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
         std::chrono::steady_clock::now() < deadline;) {
        const int64_t end = core_->fadeOutEnd();
        if (end >= 0 && output_->playedFrames() >= end + margin) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void AudioEngine::recoverFromConfigurationChange() {
    const bool wasPlaying = isPlaying_;
    stopStep();
    if (!file_) return;
    connectedFormat_.reset();
    try {
        connect(file_->format);
    } catch (const std::exception&) {
        return;
    }
    if (wasPlaying) play();
}

void AudioEngine::setVolume(float volume) {
    if (std::isnan(volume)) volume = 0;
    core_->setVolume(std::clamp(volume, 0.0f, 1.0f));
}

float AudioEngine::volume() const {
    return core_->volume();
}

std::string AudioEngine::outputKind() const {
    return output_ ? output_->kind() : "";
}

} // namespace trovan
