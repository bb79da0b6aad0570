// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Loudness tags of a track: ReplayGain gains and peaks (or Opus R128 gains, brought to
// the same -18 LUFS reference), as read from the file. Absent means not tagged or a value
// that made no sense.

#include <optional>
#include <string>
#include <string_view>

namespace trovan {

struct ReplayGain {
    std::optional<double> trackGain; // dB
    std::optional<double> trackPeak; // linear, 1.0 = full scale
    std::optional<double> albumGain;
    std::optional<double> albumPeak;

    bool operator==(const ReplayGain&) const = default;
    bool empty() const { return !trackGain && !trackPeak && !albumGain && !albumPeak; }

    // "-6.20 dB", "+1.5", "-6,20 dB", "−3 dB" (any case of "dB", a comma for the point,
    // a real minus sign); none for anything else, and for gains beyond ±60 dB.
    static std::optional<double> parseGain(std::string_view text);
    // A linear peak above 0 and at most 10 (+20 dBFS); none otherwise.
    static std::optional<double> parsePeak(std::string_view text);
    // An Opus R128 gain (a whole number of 1/256 dB against -23 LUFS) in dB against the
    // -18 LUFS that ReplayGain uses.
    static std::optional<double> parseR128(std::string_view text);

    // Builds the record from a tag look-up (key to first value): ReplayGain tags first,
    // R128 gains where those are missing.
    template <class Lookup> static ReplayGain fromTags(Lookup&& value) {
        ReplayGain rg;
        auto gain = [&](const char* rgKey, const char* r128Key) -> std::optional<double> {
            if (auto v = value(rgKey))
                if (auto g = parseGain(*v)) return g;
            if (auto v = value(r128Key)) return parseR128(*v);
            return std::nullopt;
        };
        auto peak = [&](const char* key) -> std::optional<double> {
            auto v = value(key);
            return v ? parsePeak(*v) : std::nullopt;
        };
        rg.trackGain = gain("REPLAYGAIN_TRACK_GAIN", "R128_TRACK_GAIN");
        rg.albumGain = gain("REPLAYGAIN_ALBUM_GAIN", "R128_ALBUM_GAIN");
        rg.trackPeak = peak("REPLAYGAIN_TRACK_PEAK");
        rg.albumPeak = peak("REPLAYGAIN_ALBUM_PEAK");
        return rg;
    }

    // What a tag writer stores: "-6.20 dB" and "0.988553".
    static std::string formatGain(double db);
    static std::string formatPeak(double peak);
};

} // namespace trovan
