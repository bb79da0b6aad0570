// SPDX-License-Identifier: GPL-3.0-or-later
#include "tags/LoudnessAnalysis.h"

#include "library/ReplayGain.h"
#include "media/AudioDecoder.h"

#include <ebur128.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <filesystem>

namespace trovan {

namespace {

struct State {
    struct Free {
        void operator()(ebur128_state* s) const { ebur128_destroy(&s); }
    };
    std::unique_ptr<ebur128_state, Free> meter;
};

constexpr std::size_t chunkFrames = 8192;
// Integrated loudness needs at least one 400 ms gating block.
constexpr double shortestSeconds = 0.4;

std::string fileName(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

} // namespace

LoudnessAnalysis::Track LoudnessAnalysis::measure(const std::string& path,
                                                  const std::atomic<bool>* cancel) {
    Track t;
    t.path = path;
    try {
        AudioDecoder decoder(path);
        const int channels = decoder.outputChannels();
        const int rate = decoder.sampleRate();
        if (channels < 1 || rate < 1) throw AudioDecodeError("no audio");
        State state;
        state.meter.reset(ebur128_init(static_cast<unsigned>(channels),
                                       static_cast<unsigned long>(rate),
                                       EBUR128_MODE_I | EBUR128_MODE_TRUE_PEAK));
        if (!state.meter) {
            t.error = "sin memoria para medir " + fileName(path);
            return t;
        }
        std::vector<float> buffer(chunkFrames * static_cast<std::size_t>(channels));
        int64_t frames = 0;
        while (std::size_t n = decoder.read(buffer.data(), chunkFrames)) {
            if (cancel && cancel->load(std::memory_order_relaxed)) return t;
            // A damaged file can decode to NaN: it counts as silence, not as a huge peak.
            for (std::size_t i = 0; i < n * static_cast<std::size_t>(channels); ++i)
                if (!std::isfinite(buffer[i])) buffer[i] = 0;
            if (ebur128_add_frames_float(state.meter.get(), buffer.data(), n) != EBUR128_SUCCESS) {
                t.error = "no se pudo medir " + fileName(path);
                return t;
            }
            frames += static_cast<int64_t>(n);
        }
        if (decoder.failed() && frames == 0) {
            t.error = "no se pudo leer " + fileName(path);
            return t;
        }
        t.seconds = static_cast<double>(frames) / rate;
        double lufs = -HUGE_VAL;
        ebur128_loudness_global(state.meter.get(), &lufs);
        double peak = 0;
        for (int c = 0; c < channels; ++c) {
            double p = 0;
            if (ebur128_true_peak(state.meter.get(), static_cast<unsigned>(c), &p) ==
                EBUR128_SUCCESS)
                peak = std::max(peak, p);
        }
        t.ok = true;
        t.peak = std::isfinite(peak) ? peak : 0;
        t.silent = t.seconds < shortestSeconds || !std::isfinite(lufs) || t.peak <= 0;
        t.lufs = t.silent ? 0 : lufs;
    } catch (const std::exception&) {
        t.ok = false;
        t.error = "no se pudo leer " + fileName(path);
    }
    return t;
}

std::optional<double> LoudnessAnalysis::measureJoined(const std::vector<std::string>& paths,
                                                      const std::atomic<bool>* cancel) {
    struct Free {
        void operator()(ebur128_state* s) const { ebur128_destroy(&s); }
    };
    std::unique_ptr<ebur128_state, Free> meter;
    std::vector<float> buffer;
    for (const auto& path : paths) {
        try {
            AudioDecoder decoder(path);
            const auto channels = static_cast<unsigned>(decoder.outputChannels());
            const auto rate = static_cast<unsigned long>(decoder.sampleRate());
            if (channels < 1 || rate < 1) continue;
            if (!meter)
                meter.reset(ebur128_init(channels, rate, EBUR128_MODE_I));
            else if (const int rc = ebur128_change_parameters(meter.get(), channels, rate);
                     rc != EBUR128_SUCCESS && rc != EBUR128_ERROR_NO_CHANGE)
                continue;
            if (!meter) return std::nullopt;
            buffer.resize(chunkFrames * channels);
            while (std::size_t n = decoder.read(buffer.data(), chunkFrames)) {
                if (cancel && cancel->load(std::memory_order_relaxed)) return std::nullopt;
                for (std::size_t i = 0; i < n * channels; ++i)
                    if (!std::isfinite(buffer[i])) buffer[i] = 0;
                ebur128_add_frames_float(meter.get(), buffer.data(), n);
            }
        } catch (const std::exception&) {
        }
    }
    double lufs = -HUGE_VAL;
    if (!meter || ebur128_loudness_global(meter.get(), &lufs) != EBUR128_SUCCESS ||
        !std::isfinite(lufs))
        return std::nullopt;
    return lufs;
}

LoudnessAnalysis::Album LoudnessAnalysis::album(const std::vector<const Track*>& tracks,
                                                std::optional<double> joinedLufs) {
    Album album;
    album.lufs = joinedLufs;
    for (const Track* t : tracks)
        if (t && t->ok) album.peak = std::max(album.peak, t->peak);
    return album;
}

std::optional<TagPatch> LoudnessAnalysis::patch(const Track& track, const Album& album) {
    if (!track.ok || track.silent) return std::nullopt;
    TagPatch p;
    p.changes["REPLAYGAIN_TRACK_GAIN"] = {ReplayGain::formatGain(referenceLufs - track.lufs)};
    p.changes["REPLAYGAIN_TRACK_PEAK"] = {ReplayGain::formatPeak(track.peak)};
    const double albumLufs = album.lufs.value_or(track.lufs);
    p.changes["REPLAYGAIN_ALBUM_GAIN"] = {ReplayGain::formatGain(referenceLufs - albumLufs)};
    p.changes["REPLAYGAIN_ALBUM_PEAK"] = {
        ReplayGain::formatPeak(album.lufs ? std::max(album.peak, track.peak) : track.peak)};
    return p;
}

} // namespace trovan
