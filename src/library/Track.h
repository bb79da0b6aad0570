// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One audio file's record, as the whole program passes it around: file stamp,
// tags and audio properties. Empty text and 0 mean "unknown".

#include "library/ReplayGain.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace trovan {

struct FileStamp;

struct Track {
    std::string path; // absolute path; the record's identity
    double mtime = 0; // modification time, seconds since 1970 (fractional)
    int64_t size = 0; // bytes
    std::string title;
    std::string artist;
    std::string albumArtist;
    std::string album;
    std::string genre;
    int64_t year = 0;        // leading number of DATE
    int64_t trackNumber = 0; // leading number of TRACKNUMBER
    int64_t discNumber = 0;  // leading number of DISCNUMBER
    int64_t durationMs = 0;
    std::string codec;      // short label shown to the user: FLAC, MP3, AAC, ALAC, AIFF...
    int64_t sampleRate = 0; // Hz
    int64_t bitrate = 0;    // kb/s
    int64_t channels = 0;
    ReplayGain replayGain; // loudness tags

    bool operator==(const Track&) const = default;

    const std::string& id() const { return path; }

    // title, else the file name without its extension.
    std::string displayTitle() const;
    // The same for a record held elsewhere; a view into `path` or `title`.
    static std::string_view displayTitleOf(std::string_view path, std::string_view title);
    // artist, else album artist, else "Artista desconocido" (what the player shows).
    std::string displayArtist() const;
    // album artist, else artist, else "Artista desconocido" (what the library groups by).
    std::string groupArtist() const;

    // Builds the record of the file at `path`: stamp, then tags and audio properties
    // through TagLib, or audio properties alone through FFmpeg when TagLib cannot open
    // it. None when the file does not exist or neither library can read it.
    // Safe to call from several threads on different files.
    static std::optional<Track> read(const std::string& path);
    // The same with the file's stamp taken by the caller, which has just stat'ed it (a
    // folder walk); the file is not stat'ed again.
    static std::optional<Track> read(const std::string& path, const FileStamp& stamp);

    // Leading number of a tag value such as "3/12", "2024-05-01" or " 07 ";
    // 0 when absent, not numeric, or out of range.
    static int64_t leadingInt(const std::optional<std::string>& value);

    // Label shown for a file read through TagLib: the codec TagLib names inside the
    // container (AAC or ALAC in MPEG-4) when it names one; else AAC for m4a/m4b/mp4,
    // AIFF for aif/aiff/aifc and the extension upper-cased for anything else.
    // `ext` must already be lower case.
    static std::string codecLabel(std::string_view ext, std::string_view codec);

    // Lower-case extensions, without the dot, of the files the library indexes.
    static const std::unordered_set<std::string_view>& audioExtensions();
    // True when the extension of `path` (last component only), lower-cased, is audio.
    static bool isAudioPath(std::string_view path);
};

inline constexpr std::string_view kUnknownArtist = "Artista desconocido";

// Memberwise hash; 0.0 and -0.0 hash alike, as they compare equal.
struct TrackHash {
    std::size_t operator()(const Track& t) const noexcept;
};

} // namespace trovan
