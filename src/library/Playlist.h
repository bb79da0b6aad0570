// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Play lists as files: M3U / M3U8 and PLS lists written by any program are read into
// local paths, and the queue is written as an extended M3U8. Reading tolerates what other
// programs write: a byte-order mark, CRLF line ends, Latin-1 bytes, relative entries,
// file:// URLs, Windows separators and drive letters.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trovan {

// One entry of a list being written.
struct PlaylistEntry {
    std::string path;
    std::string artist;
    std::string title;
    int64_t durationMs = 0; // 0: unknown
};

// What a list file gave.
struct PlaylistImport {
    std::vector<std::string> paths; // files found, in the list's order
    std::size_t missing = 0;        // local entries whose file is not there
    std::size_t skipped = 0;        // URLs and other lists: never followed
    std::string error;              // not a list at all (binary); empty otherwise
};

class Playlist {
public:
    enum class Format { m3u, pls };
    using Exists = std::function<bool(const std::string&)>;

    // By extension (.m3u, .m3u8, .pls, any case); none for other files.
    static std::optional<Format> formatOf(const std::filesystem::path& path);

    // The entries as written in the list, in order, as UTF-8 text; none when the bytes
    // are not text.
    static std::optional<std::vector<std::string>> entries(std::string_view bytes, Format format);

    // Where one entry points. `folder` is the list's own (absolute) folder; `exists`
    // tells whether a file is there.
    struct Resolved {
        enum class Kind { found, missing, skipped };
        Kind kind = Kind::missing;
        std::string path;
    };
    static Resolved resolve(std::string_view entry, const std::filesystem::path& folder,
                            const Exists& exists);

    static PlaylistImport read(std::string_view bytes, Format format,
                               const std::filesystem::path& folder, const Exists& exists);

    // "#EXTM3U", then per entry "#EXTINF:<seconds>,<artist> - <title>" and its path:
    // absolute, or relative to `relativeTo` when given. Entries whose path cannot be
    // written on one line are left out.
    static std::string write(const std::vector<PlaylistEntry>& entries,
                             const std::optional<std::filesystem::path>& relativeTo);

    // A saved list's name: not empty, no slash, no leading dot, no control characters,
    // at most 200 bytes, valid UTF-8.
    static bool isValidName(std::string_view name);
};

} // namespace trovan
