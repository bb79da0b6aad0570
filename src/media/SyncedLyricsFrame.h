// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The synchronised lyrics an ID3v2 tag may carry (its first "SYLT" frame stamped in
// milliseconds), in MP3, WAV and AIFF files.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace trovan {

struct SyncedLyricsFrame {
    // (milliseconds, text) in the frame's order; empty when the file has none or cannot
    // be read.
    static std::vector<std::pair<std::int64_t, std::string>> read(const std::string& path);
};

} // namespace trovan
