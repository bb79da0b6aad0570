// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
#include <string_view>

namespace trovan {

// Which ReplayGain gain playback applies: none, the track's, the album's, or the album's
// while an album plays in order and the track's otherwise.
enum class ReplayGainMode { off, track, album, automatic };

// Stored and typed form: "off", "track", "album", "auto".
constexpr std::string_view toString(ReplayGainMode m) {
    switch (m) {
    case ReplayGainMode::track:
        return "track";
    case ReplayGainMode::album:
        return "album";
    case ReplayGainMode::automatic:
        return "auto";
    case ReplayGainMode::off:
        break;
    }
    return "off";
}

constexpr std::optional<ReplayGainMode> replayGainModeFromString(std::string_view s) {
    if (s == "off") return ReplayGainMode::off;
    if (s == "track") return ReplayGainMode::track;
    if (s == "album") return ReplayGainMode::album;
    if (s == "auto") return ReplayGainMode::automatic;
    return std::nullopt;
}

} // namespace trovan
