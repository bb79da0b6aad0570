#include "tags/LoudnessAnalysis.h"

#include "library/ReplayGain.h"
#include "media/AudioDecoder.h"

#include <ebur128.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <filesystem>

namespace trovan {

struct LoudnessAnalysis::Track::State {
    struct Free {
        void operator()(ebur128_state* s) const { ebur128_destroy(&s); }
    };
    std::unique_ptr<ebur128_state, Free> meter;
};

LoudnessAnalysis::Track::Track() = default;
LoudnessAnalysis::Track::~Track() = default;
LoudnessAnalysis::Track::Track(Track&&) noexcept = default;
LoudnessAnalysis::Track& LoudnessAnalysis::Track::operator=(Track&&) noexcept = default;

namespace {

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
        auto state = std::make_unique<Track::State>();
        state->meter.reset(ebur128_init(static_cast<unsigned>(channels),
                                        static_cast<unsigned long>(rate),
                                        EBUR128_MODE_I | EBUR128_MODE_TRUE_PEAK));
        if (!state->meter) {
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
            if (ebur128_add_frames_float(state->meter.get(), buffer.data(), n) != EBUR128_SUCCESS) {
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
        ebur128_loudness_global(state->meter.get(), &lufs);
        double peak = 0;
        for (int c = 0; c < channels; ++c) {
            double p = 0;
            if (ebur128_true_peak(state->meter.get(), static_cast<unsigned>(c), &p) ==
                EBUR128_SUCCESS)
                peak = std::max(peak, p);
        }
        t.ok = true;
        t.peak = std::isfinite(peak) ? peak : 0;
        t.silent = t.seconds < shortestSeconds || !std::isfinite(lufs) || t.peak <= 0;
        t.lufs = t.silent ? 0 : lufs;
        t.state = std::move(state);
    } catch (const std::exception&) {
        t.ok = false;
        t.error = "no se pudo leer " + fileName(path);
    }
    return t;
}

LoudnessAnalysis::Album LoudnessAnalysis::measureAlbum(const std::vector<const Track*>& tracks) {
    Album album;
    std::vector<ebur128_state*> meters;
    for (const Track* t : tracks) {
        if (!t || !t->ok || !t->state) continue;
        album.peak = std::max(album.peak, t->peak);
        if (!t->silent) meters.push_back(t->state->meter.get());
    }
    if (meters.empty()) return album;
    double lufs = -HUGE_VAL;
    // Meters of different rates or channel counts still combine: each holds its blocks'
    // loudness already weighted.
    if (ebur128_loudness_global_multiple(meters.data(), meters.size(), &lufs) == EBUR128_SUCCESS &&
        std::isfinite(lufs))
        album.lufs = lufs;
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
