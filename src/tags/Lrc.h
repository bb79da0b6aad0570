// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Timed lyrics in the LRC text format: "[mm:ss.xx]text" lines (several stamps may share
// one text), "[offset:±ms]", and metadata lines such as "[ar:…]" or "[ti:…]". Word stamps
// ("<mm:ss.xx>") are dropped from the text. Reading is forgiving: a line whose stamps
// cannot be read keeps its text at the time of the line before it, so that nothing typed
// by the user is lost when the lyrics are written back.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace trovan {

struct LrcLine {
    std::int64_t ms = 0; // as stamped, before the offset
    std::string text;
    bool operator==(const LrcLine&) const = default;
};

class Lrc {
public:
    std::vector<LrcLine> lines;                            // by time; ties keep file order
    std::vector<std::pair<std::string, std::string>> tags; // metadata, in file order
    // Milliseconds the lyrics are moved earlier (a positive offset shows every line sooner).
    int offsetMs = 0;

    // Absent when no line carries a readable stamp: the text is plain lyrics.
    static std::optional<Lrc> parse(std::string_view text);
    std::string serialize() const;

    // The line sung at playback position `ms`: the last line starting at or before it,
    // -1 before the first.
    int lineAt(std::int64_t ms) const;
    // Where line `i` starts in the playback, the offset applied, never before 0.
    std::int64_t startOf(int i) const;

    // "[mm:ss.xx]" (hundredths, rounded; minutes grow past 99).
    static std::string stamp(std::int64_t ms);
    // A stamp's inside ("01:23.45", "1:23", "01:23.456", "01:23:45"); absent when it is
    // not one or its seconds are 60 or more. Negative stamps count as 0.
    static std::optional<std::int64_t> parseStamp(std::string_view inside);
    // `text` without "<mm:ss.xx>" word stamps.
    static std::string withoutWordStamps(std::string_view text);

    bool operator==(const Lrc&) const = default;
};

} // namespace trovan
