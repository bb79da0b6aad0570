// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Where a track's lyrics come from and go back to: the LYRICS tag, an ID3 "SYLT" frame,
// or a ".lrc" file beside the audio file. Timed lyrics win over plain ones; among timed
// ones the sidecar file wins (the user put it there on purpose), then the tag, then the
// SYLT frame. Runs on worker threads.

#include "tags/Lrc.h"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace trovan {

enum class LyricsOrigin { tag, sylt, sidecar };

struct LoadedLyrics {
    LyricsOrigin origin = LyricsOrigin::tag;
    std::optional<Lrc> timed;
    std::string plain;   // the text, when not timed
    std::string problem; // a Spanish message for the user, or empty
};

class LyricsSource {
public:
    // Larger sidecars are refused: no lyrics are that long.
    static constexpr std::size_t maxSidecarBytes = 4u << 20;

    // "dir/name.flac" → "dir/name.lrc".
    static std::filesystem::path sidecarPath(const std::string& audio);
    static LoadedLyrics load(const std::string& audio);
    // The text to edit by hand for the lyrics `load` shows, time stamps included: the
    // sidecar's or the tag's text as it is, or a SYLT frame as LRC (saved into the tag).
    struct Editable {
        LyricsOrigin origin = LyricsOrigin::tag;
        std::string text;
    };
    static Editable editable(const std::string& audio);

    // The sidecar's text as UTF-8 (a byte-order mark dropped, UTF-16 and Latin-1
    // converted); absent when there is none, it cannot be read or it is too large (then
    // `problem` says so).
    static std::optional<std::string> readSidecar(const std::string& audio, std::string* problem);
    // Bytes of unknown encoding as UTF-8.
    static std::string toUtf8(std::string bytes);
    // Replaces the sidecar in one step; false with errno on failure.
    static bool writeSidecar(const std::string& audio, const std::string& text);
};

} // namespace trovan
