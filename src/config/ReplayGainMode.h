// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "config/EnumNames.h"

namespace trovan {

// Which ReplayGain gain playback applies: none, the track's, the album's, or the album's
// while an album plays in order and the track's otherwise.
enum class ReplayGainMode { off, track, album, automatic };

// Stored and typed form: "off", "track", "album", "auto".
inline constexpr EnumNames<ReplayGainMode, 4> replayGainModeNames{
    {{{ReplayGainMode::off, "off"},
      {ReplayGainMode::track, "track"},
      {ReplayGainMode::album, "album"},
      {ReplayGainMode::automatic, "auto"}}}};
constexpr std::string_view toString(ReplayGainMode m) {
    return replayGainModeNames(m);
}
constexpr std::optional<ReplayGainMode> replayGainModeFromString(std::string_view s) {
    return replayGainModeNames.parse(s);
}

} // namespace trovan
